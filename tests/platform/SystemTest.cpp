// The platform layer on real folders. The cases are shared between Linux and Windows; what
// differs (source file name, separators, error codes, how a file is kept from deletion) is a
// property of the platform below.
#include "System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <regex>
#include <string>
#include <vector>

#ifdef _WIN32
#include <process.h>
#include <windows.h>
#else
#include <grp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern char** environ;
#endif

namespace fs = std::filesystem;
using measurement::FileEntry;
using measurement::System;

namespace {

struct Platform {
    const char* sourceFile;
    const char* tempVariable;
    std::string separators; // the first is the native one
    bool finalSeparator;    // whether a folder may be named with a separator at its end
    int lockedFolderCode;   // code in "Could not erase directory" for a folder held elsewhere
    int notEmptyFolderCode; // the same for a folder that is not empty
    int fileRmdirErrno;     // errno of removing a plain file as a folder
};

#ifdef _WIN32
// The runtime's stat does not accept a final separator.
const Platform platform{"winSystem.cpp",     "TMP", "\\/", false, ERROR_SHARING_VIOLATION,
                        ERROR_DIR_NOT_EMPTY, EINVAL};
#else
const Platform platform{"posixSystem.cpp", "TMPDIR", "/", true, EACCES, ENOTEMPTY, ENOTDIR};
#endif

struct Outcome {
    bool result;
    std::string output;
};

#ifdef _WIN32
std::string* captured = nullptr;

LONG CALLBACK onDebugString(EXCEPTION_POINTERS* info) {
    const EXCEPTION_RECORD* record = info->ExceptionRecord;
    if (captured != nullptr && record->ExceptionCode == DBG_PRINTEXCEPTION_C)
        captured->append(reinterpret_cast<const char*>(record->ExceptionInformation[1]),
                         record->ExceptionInformation[0] - 1);
    return EXCEPTION_CONTINUE_SEARCH;
}

std::string capture(const std::function<void()>& body) {
    std::string text;
    captured = &text;
    void* handler = AddVectoredExceptionHandler(1, onDebugString);
    body();
    RemoveVectoredExceptionHandler(handler);
    captured = nullptr;
    return text;
}

// Windows keeps a file or folder that is open without FILE_SHARE_DELETE.
std::vector<HANDLE> locks;
void lock(const fs::path& path) {
    locks.push_back(CreateFileA(path.string().c_str(), GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}
void unlockAll() {
    for (HANDLE handle : locks)
        CloseHandle(handle);
    locks.clear();
}

Outcome removeDespiteLocks(const std::string& path, const fs::path&) {
    Outcome outcome{};
    outcome.output = capture([&] { outcome.result = System::removeDirectoryRecursively(path); });
    return outcome;
}

int runSelf(std::vector<std::string> arguments) {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    arguments.insert(arguments.begin(), self);
    std::vector<const char*> argv;
    for (std::string& argument : arguments) // the runtime joins them unquoted
        argv.push_back((argument = '"' + argument + '"').c_str());
    argv.push_back(nullptr);
    return static_cast<int>(_spawnv(_P_WAIT, self, argv.data()));
}

void setVariable(const char* name, const char* value) {
    _putenv((std::string(name) + "=" + value).c_str());
}
#else
std::string capture(const std::function<void()>& body) {
    std::FILE* sink = std::tmpfile();
    const int saved = dup(STDERR_FILENO);
    dup2(fileno(sink), STDERR_FILENO);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text(static_cast<size_t>(std::ftell(sink)), '\0');
    std::rewind(sink);
    text.resize(std::fread(text.data(), 1, text.size(), sink));
    std::fclose(sink);
    return text;
}

// Linux keeps an entry whose folder is not writable.
std::vector<fs::path> locks;
void lock(const fs::path& path) {
    locks.push_back(path.parent_path());
    fs::permissions(locks.back(), fs::perms::owner_write, fs::perm_options::remove);
}
void unlockAll() {
    for (const fs::path& folder : locks)
        fs::permissions(folder, fs::perms::owner_write, fs::perm_options::add);
    locks.clear();
}

// Root ignores permissions, so the removal runs in a child that gives up root for "nobody".
Outcome removeDespiteLocks(const std::string& path, const fs::path& tree) {
    const bool root = geteuid() == 0;
    if (root) {
        EXPECT_EQ(lchown(tree.c_str(), 65534, 65534), 0);
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree))
            EXPECT_EQ(lchown(entry.path().c_str(), 65534, 65534), 0);
    }
    int channel[2];
    EXPECT_EQ(pipe(channel), 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(channel[1], STDERR_FILENO);
        const bool dropped =
            !root || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
        _exit(!dropped ? 2 : System::removeDirectoryRecursively(path) ? 0 : 1);
    }
    close(channel[1]);
    Outcome outcome{};
    char buffer[4096];
    for (ssize_t n; (n = read(channel[0], buffer, sizeof buffer)) > 0;)
        outcome.output.append(buffer, static_cast<size_t>(n));
    close(channel[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2) << "child status " << status;
    outcome.result = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return outcome;
}

int runSelf(const std::vector<std::string>& arguments) {
    std::vector<char*> argv{const_cast<char*>("/proc/self/exe")};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    if (posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ) == 0)
        waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void setVariable(const char* name, const char* value) {
    setenv(name, value, 1);
}
#endif

// The output without the walk's lines, and with "line#" for the reporting source line.
std::string failures(const std::string& output) {
    const std::string failures = std::regex_replace(output, std::regex("---.*\n"), "");
    return std::regex_replace(failures, std::regex("(, line ?)[0-9]+:"), "$1#:");
}

std::string notEmptyLine(const std::string& path) {
    return std::string(platform.sourceFile) + ", line#: given path " + path +
           " is not a directory, the directory is not empty or the directory is either the "
           "current working directory or the root directory\n";
}

class SystemTest : public ::testing::Test {
protected:
    // The helper's own temporary folder; it would also go at exit, but each case cleans up.
    void SetUp() override {
        root = System::instance().createTemporaryFolder();
        ASSERT_FALSE(root.empty());
    }
    void TearDown() override {
        unlockAll();
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    // Names ending in '/' are folders, the others files.
    void make(const std::vector<std::string>& names) {
        for (const std::string& name : names)
            if (name.back() == '/')
                fs::create_directories(root / name);
            else
                std::ofstream(root / name) << name;
    }
    // The path spelt with the given separator only.
    std::string spelt(const fs::path& path, char separator = platform.separators[0]) const {
        std::string text = path.string();
        for (char& c : text)
            if (c == '/' || c == '\\')
                c = separator;
        return text;
    }
    bool exists(const std::string& name) const { return fs::exists(root / name); }

    fs::path root;
};

TEST_F(SystemTest, DebugLines) {
    const char* const nullFormat = nullptr;
    const char* const emptyFormat = "";
    const std::string text(5000, 'x');
    const struct {
        const char* name;
        std::function<void()> call;
        std::string expected;
    } cases[] = {
        {"arguments", [] { debugPrint("%s=%d/%i/%u", "n", -5, 6, 7u); }, "n=-5/6/7\n"},
        {"empty format", [&] { debugPrint(emptyFormat); }, "\n"},
        {"line feed of its own", [] { debugPrint("x\n"); }, "x\n\n"},
        {"1023 characters", [&] { debugPrint("%s", text.substr(0, 1023).c_str()); },
         text.substr(0, 1023) + "\n"},
        {"5000 characters", [&] { debugPrint("%s", text.c_str()); }, text.substr(0, 1023) + "\n"},
        {"null format", [&] { debugPrint(nullFormat); }, ""},
#ifndef _WIN32 // MinGW's C99 formatting has no failing conversion to test
        {"formatting error", [] { debugPrint("%ls", L"\u00e9"); }, ""},
#endif
    };
    for (const auto& c : cases)
        EXPECT_EQ(capture(c.call), c.expected) << c.name;
}

TEST_F(SystemTest, PathKinds) {
    make({"file.txt"});
    const std::string missing = spelt(root / "missing"), file = spelt(root / "file.txt");
    const std::string folder = spelt(root);
    const struct {
        const char* path;
        int kind;
    } cases[] = {{nullptr, 0}, {missing.c_str(), 0}, {file.c_str(), 1}, {folder.c_str(), 2}};
    for (const auto& c : cases)
        EXPECT_EQ(System::pathKind(c.path), c.kind) << (c.path ? c.path : "null");
}

// Every separator the platform accepts, with and without a final one.
TEST_F(SystemTest, WalkAndRemoveTrees) {
    const std::vector<std::string> trees[] = {
        {}, {"a.txt", "sub/", "sub/b.txt", "sub/deeper/", "sub/deeper/c.txt", "empty/"}};
    for (const char separator : platform.separators)
        for (const auto& tree : trees)
            for (const std::string ending : {"", "/"}) {
                if (!ending.empty() && !platform.finalSeparator)
                    continue;
                SCOPED_TRACE(std::string("separator ") + separator + ", tree of " +
                             std::to_string(tree.size()) + ", ending '" + ending + "'");
                make(tree);
                const std::string top = spelt(root, separator);
                std::list<FileEntry> entries;
                bool walked = false;
                capture([&] {
                    walked = System::findFiles(top + spelt(ending, separator), false, entries);
                });
                ASSERT_TRUE(walked);
                std::vector<std::string> found;
                for (const FileEntry& entry : entries) {
                    EXPECT_EQ(entry.path.rfind(top + separator, 0), 0u) << entry.path;
                    const std::string name = entry.path.substr(top.size() + 1);
                    EXPECT_EQ(entry.isDirectory, fs::is_directory(root / name)) << name;
                    // Pre-order: a folder comes before everything inside it.
                    const size_t parent = name.rfind(separator);
                    if (parent != std::string::npos) {
                        EXPECT_NE(std::find(found.begin(), found.end(), name.substr(0, parent)),
                                  found.end())
                            << name;
                    }
                    found.push_back(name);
                }
                EXPECT_EQ(found.size(), tree.size());
                const std::string output =
                    capture([&] { EXPECT_TRUE(System::removeDirectoryRecursively(top)); });
                EXPECT_EQ(output.rfind("---Recursive: " + top + "\n", 0), 0u) << output;
                EXPECT_EQ(failures(output), "");
                EXPECT_FALSE(fs::exists(root));
                fs::create_directories(root);
            }
}

// One folder alone, and trees that are none.
TEST_F(SystemTest, RemoveWithoutTree) {
    make({"full/", "full/file.txt", "empty/", "plain.txt"});
    const std::string file = platform.sourceFile;
    using Remove = bool (*)(const std::string&);
    const Remove single = [](const std::string& path) {
        return System::removeDirectory(path.c_str());
    };
    const Remove tree = System::removeDirectoryRecursively;
    const struct {
        Remove remove;
        const char* name;
        bool removed;
        std::string expected;
    } cases[] = {
        {single, "empty", true, ""},
        {single, "missing", false,
         file + ", line#: path to " + spelt(root / "missing") + " is invalid\n"},
        {single, "full", false, notEmptyLine(spelt(root / "full"))},
        {single, "plain.txt", false,
         file + ", line #: unknown error " + std::to_string(platform.fileRmdirErrno) + "\n"},
        {tree, "plain.txt", false, ""},
        {tree, "missing", false, ""},
    };
    for (const auto& c : cases) {
        bool removed = !c.removed;
        const std::string output = capture([&] { removed = c.remove(spelt(root / c.name)); });
        EXPECT_EQ(removed, c.removed) << c.name;
        EXPECT_EQ(failures(output), c.expected) << c.name;
    }
    EXPECT_TRUE(exists("plain.txt") && exists("full/file.txt"));
}

// A file that resists keeps every folder; a folder that resists keeps its parents.
TEST_F(SystemTest, RemovalDespiteLocks) {
    const std::string top = spelt(root), y = spelt(root / "x/y"), x = spelt(root / "x");
    const std::string notEmpty = std::to_string(platform.notEmptyFolderCode);
    const struct {
        std::vector<std::string> tree;
        const char* locked;
        std::string expected;
        std::vector<std::string> kept, gone;
    } cases[] = {
        {{"a.txt", "locked/", "locked/held.txt", "sub/", "sub/b.txt"},
         "locked/held.txt",
         "Could not erase file " + spelt(root / "locked/held.txt") + "\n",
         {"locked/held.txt", "sub"},
         {"a.txt", "sub/b.txt"}},
        {{"x/", "x/y/"},
         "x/y",
         std::string(platform.sourceFile) + ", line#: a programm has an open handle to the " +
             "directory " + y + "\nCould not erase directory " + y + " error is " +
             std::to_string(platform.lockedFolderCode) + "\n" + notEmptyLine(x) +
             "Could not erase directory " + x + " error is " + notEmpty + "\n" + notEmptyLine(top) +
             "Could not erase directory " + top + " error is " + notEmpty + "\n",
         {"x/y"},
         {}},
    };
    for (const auto& c : cases) {
        make(c.tree);
        lock(root / c.locked);
        const Outcome outcome = removeDespiteLocks(top, root);
        unlockAll();
        EXPECT_FALSE(outcome.result) << c.locked;
        EXPECT_EQ(failures(outcome.output), c.expected);
        for (const std::string& name : c.kept)
            EXPECT_TRUE(exists(name)) << name;
        for (const std::string& name : c.gone)
            EXPECT_FALSE(exists(name)) << name;
        fs::remove_all(root / c.tree[0]);
    }
}

#ifndef _WIN32
TEST_F(SystemTest, SymbolicLinkIsRemovedNotFollowed) {
    make({"tree/", "outside/", "outside/kept.txt"});
    fs::create_directory_symlink(root / "outside", root / "tree/link");
    bool removed = false;
    capture([&] { removed = System::removeDirectoryRecursively(spelt(root / "tree")); });
    EXPECT_TRUE(removed);
    EXPECT_TRUE(exists("outside/kept.txt"));
    EXPECT_FALSE(exists("tree"));
}
#endif

// A child process makes two temporary folders and ends; the folders must go with it.
TEST_F(SystemTest, TemporaryFoldersGoAtExit) {
    make({"temp/"});
    const std::string listing = spelt(root / "folders.txt");
    EXPECT_EQ(runSelf({"--make-temporary-folders", spelt(root / "temp"), listing}), 0);
    std::ifstream in(listing);
    std::string first, second;
    ASSERT_TRUE(std::getline(in, first) && std::getline(in, second));
    EXPECT_NE(first, second);
    for (const std::string& folder : {first, second}) {
        EXPECT_EQ(fs::path(folder).filename().string().rfind("tmp", 0), 0u) << folder;
        EXPECT_TRUE(fs::equivalent(fs::path(folder).parent_path(), root / "temp")) << folder;
        EXPECT_EQ(System::pathKind(folder.c_str()), 0) << folder;
    }
}

// The child's part: two folders in `base`, one with content, both listed for removal at exit.
int makeTemporaryFolders(const char* base, const char* listing) {
    setVariable(platform.tempVariable, base);
    System& system = System::instance();
    const std::string first = system.createTemporaryFolder();
    const std::string second = system.createTemporaryFolder();
    if (System::pathKind(first.c_str()) != 2 || System::pathKind(second.c_str()) != 2 ||
        system.temporaryFolders != std::list<std::string>{first, second})
        return 3;
    fs::create_directory(fs::path(first) / "sub");
    std::ofstream(fs::path(first) / "sub" / "data.bin") << "data";
    std::ofstream(listing) << first << '\n' << second << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--make-temporary-folders")
        return makeTemporaryFolders(argv[2], argv[3]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
