// The platform layer on real folders: the same cases on Linux and on Windows (under Wine).
#include "System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace fs = std::filesystem;
using measurement::FileEntry;
using measurement::System;

namespace {

struct Platform {
    const char *sourceFile, *tempVariable;
    std::string separators; // the native one first
    bool finalSeparator;    // whether a folder may be named with a separator at its end
    int lockedFolderCode, notEmptyFolderCode; // in "Could not erase directory ... error is"
    int fileRmdirErrno;                       // of removing a plain file as a folder
    const char* commandQuote;                 // around a whole command line for std::system
};

#ifdef _WIN32
const Platform platform{"winSystem.cpp",     "TMP",  "\\/", false, ERROR_SHARING_VIOLATION,
                        ERROR_DIR_NOT_EMPTY, EINVAL, "\""}; // cmd.exe drops the outer quotes

std::string captured;
std::string capture(const std::function<void()>& body) {
    captured.clear();
    void* handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD* record = info->ExceptionRecord;
        if (record->ExceptionCode == DBG_PRINTEXCEPTION_C)
            captured.append(reinterpret_cast<const char*>(record->ExceptionInformation[1]),
                            record->ExceptionInformation[0] - 1);
        return EXCEPTION_CONTINUE_SEARCH;
    });
    body();
    RemoveVectoredExceptionHandler(handler);
    return captured;
}

// Windows keeps an entry that is open without FILE_SHARE_DELETE; the result undoes that.
std::function<void()> lock(const fs::path& path) {
    const HANDLE handle =
        CreateFileA(path.string().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    return [handle] { CloseHandle(handle); };
}
#else
const Platform platform{"posixSystem.cpp", "TMPDIR", "/", true, EACCES, ENOTEMPTY, ENOTDIR, ""};

std::string capture(const std::function<void()>& body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

// Linux keeps an entry whose folder is not writable (main gives up root, which ignores that).
std::function<void()> lock(const fs::path& path) {
    chmod(path.parent_path().c_str(), 0555);
    return [folder = path.parent_path()] { chmod(folder.c_str(), 0755); };
}
#endif

// "line#" for the reporting source line, and without the walk's lines unless asked for.
std::string failures(const std::string& output, bool walk = false) {
    const std::string text = walk ? output : std::regex_replace(output, std::regex("---.*\n"), "");
    return std::regex_replace(text, std::regex("(, line ?)[0-9]+:"), "$1#:");
}

// A line of the helper's own, as failures() shows it.
std::string reported(const std::string& text, const char* line = ", line#: ") {
    return platform.sourceFile + (line + text) + "\n";
}

std::string notEmpty(const std::string& path) {
    return reported("given path " + path +
                    " is not a directory, the directory is not empty or the "
                    "directory is either the current working directory or the root directory");
}

class SystemTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fs::is_directory(root)) << root; }
    void TearDown() override { fs::remove_all(root, ignored); }
    // Names ending in '/' are folders, the others files.
    void make(const std::vector<std::string>& names) {
        for (const std::string& name : names)
            if (name.back() == '/')
                fs::create_directories(root / name);
            else
                std::ofstream(root / name) << name;
    }
    static std::string spelt(fs::path path, char separator = platform.separators[0]) {
        return separator == '/' ? path.generic_string() : path.make_preferred().string();
    }
    bool exists(const std::string& name) const { return fs::exists(root / name); }
    // Removes `name` (all when empty) alone or as a tree: the result and the output, with "line#".
    std::pair<bool, std::string> remove(const std::string& name, bool tree) {
        const std::string path = spelt(name.empty() ? root : root / name);
        bool removed = false;
        const std::string output = capture([&] {
            removed = tree ? System::removeDirectoryRecursively(path)
                           : System::removeDirectory(path.c_str());
        });
        return {removed, failures(output, true)};
    }
    // The failures of removing the whole tree while `locked` resists.
    std::string removeLocked(const std::string& locked) {
        const auto unlock = lock(root / locked);
        const auto outcome = remove("", true);
        unlock();
        EXPECT_FALSE(outcome.first);
        return failures(outcome.second);
    }

    fs::path root = System::instance().createTemporaryFolder();
    std::error_code ignored;
};

TEST_F(SystemTest, DebugLinesAndPathKinds) {
    const char* const nullFormat = nullptr;
    const std::string text(5000, 'x');
    EXPECT_EQ(capture([] { debugPrint("%s=%d/%i/%u\n", "n", -5, 6, 7u); }), "n=-5/6/7\n\n");
    EXPECT_EQ(capture([&] { debugPrint("%s", text.c_str()); }), text.substr(0, 1023) + "\n");
    EXPECT_EQ(capture([&] { debugPrint(nullFormat); }), "");
#ifndef _WIN32 // MinGW's C99 formatting has no failing conversion to test
    EXPECT_EQ(capture([] { debugPrint("%ls", L"\u00e9"); }), "");
#endif
    make({"file.txt"});
    EXPECT_EQ(System::pathKind(nullptr), 0);
    EXPECT_EQ(System::pathKind(spelt(root / "missing").c_str()), 0);
    EXPECT_EQ(System::pathKind(spelt(root / "file.txt").c_str()), 1);
    EXPECT_EQ(System::pathKind(spelt(root).c_str()), 2);
}

// Every separator the platform accepts, with and without a final one.
TEST_F(SystemTest, WalkAndRemoveTrees) {
    const std::vector<std::string> tree{"a.txt",     "empty/",      "sub/",
                                        "sub/b.txt", "sub/deeper/", "sub/deeper/c.txt"};
    const std::pair<char, std::string> spellings[] = {
        {platform.separators[0], ""},
        {platform.separators.back(), platform.finalSeparator ? "/" : ""}};
    for (const auto& [separator, ending] : spellings) {
        SCOPED_TRACE(std::string("separator ") + separator + ", ending '" + ending + "'");
        make(tree);
        const std::string top = spelt(root, separator), given = top + ending;
        std::list<FileEntry> entries;
        capture([&] { ASSERT_TRUE(System::findFiles(given, false, entries)); });
        std::vector<std::string> found; // spelt as in `tree`, in the order found
        for (const FileEntry& entry : entries) {
            ASSERT_EQ(entry.path.rfind(top + separator, 0), 0u) << entry.path;
            const std::string name =
                spelt(entry.path.substr(top.size() + 1), '/') + (entry.isDirectory ? "/" : "");
            // Pre-order: a folder comes before everything inside it.
            const size_t parent = name.rfind('/', name.size() - 2);
            EXPECT_TRUE(parent == std::string::npos ||
                        std::count(found.begin(), found.end(), name.substr(0, parent + 1)) == 1)
                << name;
            found.push_back(name);
        }
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, tree);
        const std::string output =
            capture([&] { EXPECT_TRUE(System::removeDirectoryRecursively(top)); });
        EXPECT_EQ(output.rfind("---Recursive: " + top + "\n", 0), 0u) << output;
        EXPECT_EQ(failures(output), "");
        EXPECT_FALSE(fs::exists(root));
        fs::create_directories(root);
    }
}

// One folder alone; trees that are none say nothing at all; a symbolic link goes, not its target.
TEST_F(SystemTest, RemoveSingleFoldersAndOddTrees) {
    make({"full/", "full/file.txt", "empty/", "plain.txt", "tree/"});
#ifndef _WIN32
    fs::create_directory_symlink(root / "full", root / "tree/link");
#endif
    using Outcome = std::pair<bool, std::string>;
    EXPECT_EQ(remove("empty", false), Outcome(true, ""));
    EXPECT_EQ(remove("missing", false),
              Outcome(false, reported("path to " + spelt(root / "missing") + " is invalid")));
    EXPECT_EQ(remove("full", false), Outcome(false, notEmpty(spelt(root / "full"))));
    const std::string code = std::to_string(platform.fileRmdirErrno);
    EXPECT_EQ(remove("plain.txt", false),
              Outcome(false, reported("unknown error " + code, ", line #: ")));
    EXPECT_EQ(remove("plain.txt", true), Outcome(false, ""));
    EXPECT_EQ(remove("missing", true), Outcome(false, ""));
    EXPECT_TRUE(remove("tree", true).first);
    EXPECT_TRUE(exists("plain.txt") && exists("full/file.txt") && !exists("tree"));
}

// A file that resists keeps every folder; a folder that resists keeps its parents.
TEST_F(SystemTest, ResistingEntriesKeepTheirFolders) {
    make({"a.txt", "sub/", "sub/b.txt", "x/", "x/held.txt", "x/y/"});
    EXPECT_EQ(removeLocked("x/held.txt"),
              "Could not erase file " + spelt(root / "x/held.txt") + "\n");
    EXPECT_TRUE(exists("x/held.txt") && exists("x/y") && exists("sub"));
    EXPECT_FALSE(exists("a.txt") || exists("sub/b.txt"));

    fs::remove(root / "x/held.txt");
    const std::string top = spelt(root), x = spelt(root / "x"), y = spelt(root / "x/y");
    const auto failed = [](const std::string& path, int code) {
        return "Could not erase directory " + path + " error is " + std::to_string(code) + "\n";
    };
    EXPECT_EQ(removeLocked("x/y"), reported("a programm has an open handle to the directory " + y) +
                                       failed(y, platform.lockedFolderCode) + notEmpty(x) +
                                       failed(x, platform.notEmptyFolderCode) + notEmpty(top) +
                                       failed(top, platform.notEmptyFolderCode));
    EXPECT_TRUE(exists("x/y") && !exists("sub"));
}

// A child process makes two temporary folders and ends; the folders must go with it.
TEST_F(SystemTest, TemporaryFoldersGoAtExit) {
    make({"temp/"});
    const std::string self = fs::absolute(testing::internal::GetArgvs()[0]).string();
    const std::string command =
        '"' + self + "\" --make-temporary-folders \"" + spelt(root / "temp") + '"';
    EXPECT_EQ(std::system((platform.commandQuote + command + platform.commandQuote).c_str()), 0);
    EXPECT_TRUE(fs::is_empty(root / "temp"));
}

// The child's part: two folders "tmp*" in `base`, with content; 0 when they were made.
int makeTemporaryFolders(const char* base) {
    static std::string variable = platform.tempVariable + ("=" + std::string(base));
    putenv(variable.data());
    for (int i = 0; i < 2; ++i) {
        const fs::path folder = System::instance().createTemporaryFolder();
        if (!fs::equivalent(folder.parent_path(), base) ||
            folder.filename().string().rfind("tmp", 0) != 0)
            return 3;
        fs::create_directory(folder / "sub"); // throws unless the folder was made
        std::ofstream(folder / "sub" / "data.bin") << "data";
    }
    const fs::directory_iterator made(base);
    return std::distance(fs::begin(made), fs::end(made)) == 2 ? 0 : 4;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--make-temporary-folders")
        return makeTemporaryFolders(argv[2]);
#ifndef _WIN32 // root ignores the permissions that make an entry resist: run as "nobody"
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0 ||
                           prctl(PR_SET_DUMPABLE, 1) != 0))
        return 2;
#endif
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
