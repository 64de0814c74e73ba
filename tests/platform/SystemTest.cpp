// The platform layer on real folders: the same cases on Linux and on Windows (under Wine).
#include "System.h"
#include "LogSink.h"
#include "UnicodePaths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <thread>
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
using measurement::LogSink;
using measurement::System;
using measurement::UnicodePaths;

namespace {

#ifdef _WIN32
const char *const sourceFile = "winSystem.cpp", *const tempVariable = "TMP=";
const char* const finalSeparator = ""; // _stat refuses a folder named with one
const std::string separator = "\\";
const char* const ansiA = "\xC3\xA4"; // a debug line's byte 0xE4 ("ä" in code page 1252)
const int lockedFolderCode = ERROR_SHARING_VIOLATION, notEmptyFolderCode = ERROR_DIR_NOT_EMPTY,
          fileRmdirErrno = EINVAL; // of removing a plain file as a folder

std::string captured;
std::string capture(const std::function<void()>& body) {
    void* handler = AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
        const EXCEPTION_RECORD* record = info->ExceptionRecord;
        if (record->ExceptionCode == DBG_PRINTEXCEPTION_C)
            captured.append(reinterpret_cast<const char*>(record->ExceptionInformation[1]),
                            record->ExceptionInformation[0] - 1);
        return EXCEPTION_CONTINUE_SEARCH;
    });
    body();
    RemoveVectoredExceptionHandler(handler);
    return std::exchange(captured, {});
}

// Windows keeps an entry that is open without FILE_SHARE_DELETE; the result undoes that.
std::function<void()> lock(const fs::path& path) {
    const HANDLE handle =
        CreateFileA(path.string().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    return [handle] { CloseHandle(handle); };
}

std::wstring wide(const std::string& utf8) {
    std::wstring text(utf8.size(), L'\0');
    text.resize(size_t(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), int(utf8.size()), text.data(),
                                           int(text.size()))));
    return text;
}
// Past MAX_PATH the test itself needs the "\\?\" form.
bool makeFolder(const std::string& utf8) {
    return CreateDirectoryW((L"\\\\?\\" + wide(utf8)).c_str(), nullptr) != 0;
}
bool makeFile(const std::string& utf8) {
    const HANDLE file = CreateFileW((L"\\\\?\\" + wide(utf8)).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_NEW, 0, nullptr);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file);
}
void setTemporaryFolder(const std::string& utf8) {
    _wputenv((L"TMP=" + wide(utf8)).c_str());
}
#else
const char *const sourceFile = "posixSystem.cpp", *const tempVariable = "TMPDIR=";
const char* const finalSeparator = "/"; // a folder may be named with one
const std::string separator = "/";
const char* const ansiA = "\\xE4"; // a debug line's byte 0xE4, which UTF-8 names cannot hold
const int lockedFolderCode = EACCES, notEmptyFolderCode = ENOTEMPTY, fileRmdirErrno = ENOTDIR;

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

bool makeFolder(const std::string& utf8) {
    return mkdir(utf8.c_str(), 0755) == 0;
}
bool makeFile(const std::string& utf8) {
    return std::ofstream(utf8).good();
}
void setTemporaryFolder(const std::string& utf8) {
    setenv("TMPDIR", utf8.c_str(), 1);
}
#endif

// Made by TemporaryFolders; by the time main's exit handler looks, they must be gone.
std::vector<fs::path> temporaryFolders;

class SystemTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fs::is_directory(root)) << root; }
    // Names ending in '/' are folders, the others files.
    void make(const std::vector<std::string>& names) {
        for (const std::string& name : names) {
            fs::create_directories((root / name).parent_path());
            if (name.back() != '/')
                std::ofstream(root / name) << name;
        }
    }
    // Spelt with the native separator.
    std::string at(const std::string& name) const {
        return fs::path(name.empty() ? root : root / name).make_preferred().string();
    }

    const fs::path root = System::instance().createTemporaryFolder(); // goes with the instance
};

// How debug lines are formatted and where they go: LogCallback below.
TEST_F(SystemTest, PathKinds) {
    make({"file.txt"});
    EXPECT_EQ(System::pathKind(nullptr), 0);
    EXPECT_EQ(System::pathKind(at("missing").c_str()), 0);
    EXPECT_EQ(System::pathKind(at("file.txt").c_str()), 1);
    EXPECT_EQ(System::pathKind(at("").c_str()), 2);
}

// What the host's log callback is handed, as "<level>:<line>"; calls that overlapped are counted.
struct LogLines {
    std::vector<std::string> lines;
    std::atomic<int> inside{0};
    int overlapped = 0;
};
void DATAEXCHANGE_CALL collect(uint32_t level, const char* line, void* context) {
    auto* log = static_cast<LogLines*>(context);
    log->overlapped += ++log->inside > 1;
    log->lines.push_back(std::to_string(level) + ":" + line);
    --log->inside;
}

// The callback takes every line instead of the debug output: whole, in order, in UTF-8, without
// the line end; lines of two threads never overlap; it may unset itself, and what is logged
// inside it goes to the debug output; unsetting waits for a running call; NULL restores.
TEST_F(SystemTest, LogCallback) {
    LogLines log;
    const std::string text(5000, 'x');
    LogSink::set(collect, &log);
    EXPECT_EQ(capture([&] {
                  debugPrint("%s=%d/%i/%u\n", "n", -5, 6, 7u);
                  debugPrint("%s", text.c_str());
                  debugPrint("Adding file %s", "Messung_\xE4.csv");
                  debugPrint(static_cast<const char*>(nullptr));
                  LogSink::deliver(LogWarning, "Couldn't open a.csv");
              }),
              "");
    EXPECT_EQ(log.lines,
              (std::vector<std::string>{"0:n=-5/6/7\n", "0:" + text.substr(0, 1023),
                                        "0:Adding file Messung_" + std::string(ansiA) + ".csv",
                                        "1:Couldn't open a.csv"}));
    log.lines.clear();
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([t, &text] {
            for (int n = 0; n < 300; ++n)
                debugPrint("%d %03d %s", t, n, text.c_str() + 4900);
        });
    for (std::thread& thread : threads)
        thread.join();
    // Whole lines, one call at a time.
    EXPECT_EQ(log.overlapped, 0);
    EXPECT_EQ(std::count_if(log.lines.begin(), log.lines.end(),
                            [&](const std::string& line) {
                                return line.size() == 108 && line.compare(8, 100, text, 4900) == 0;
                            }),
              600);

    static std::atomic<int> phase{0}; // 1: in the call, 2: unset returned
    static int unsetBeforeReturn = 0;
    LogSink::set(
        [](uint32_t, const char* line, void*) {
            phase = 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            unsetBeforeReturn = phase.load() == 2;
            debugPrint("inside %s", line);
        },
        nullptr);
    EXPECT_EQ(capture([&] {
                  std::thread slow([] { debugPrint("slow"); });
                  for (int wait = 0; wait < 5000 && phase == 0; ++wait)
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                  LogSink::set(nullptr, nullptr);
                  phase = 2;
                  slow.join();
                  LogSink::set([](uint32_t, const char*, void*) { LogSink::set(nullptr, nullptr); },
                               nullptr);
                  debugPrint("unset inside");
                  debugPrint("restored");
              }),
              "inside slow\nrestored\n");
    EXPECT_EQ(unsetBeforeReturn, 0);
}

// Single folders and trees, with all the debug output except the walk's entries: a file that
// resists keeps every folder, a folder that resists keeps its parents, trees that are none say
// nothing, a symbolic link goes and not its target. The walk enters each folder (one at each level
// here, so the order is known) before what it holds, in the spelling it was given: native, or for
// "tree" with forward slashes and, where allowed, a final one.
TEST_F(SystemTest, RemoveFoldersAndTrees) {
    make({"empty/", "plain.txt", "tree/a.txt", "tree/deeper/b.txt", "tree/deeper/empty/",
          "h/held.txt", "x/y/"});
#ifndef _WIN32
    fs::create_directory_symlink(root / "h", root / "tree/link");
#endif
    const auto slashed = [&](const char* name) { return (root / name).generic_string(); };
    const struct {
        std::string path;
        const char* locked; // the entry that resists, if any
        bool tree, removed; // removeDirectoryRecursively, else removeDirectory; result
    } removals[] = {{at("empty"), "", false, true},
                    {at("missing"), "", false, false},
                    {at("plain.txt"), "", false, false},
                    {at("plain.txt"), "", true, false},
                    {slashed("tree") + finalSeparator, "", true, true},
                    {at("h"), "h/held.txt", true, false},
                    {at("x"), "x/y", true, false}};
    std::string output;
    for (const auto& removal : removals) {
        const std::function<void()> unlock = *removal.locked ? lock(root / removal.locked) : [] {};
        bool removed = false;
        output += capture([&] {
            removed = removal.tree ? System::removeDirectoryRecursively(removal.path)
                                   : System::removeDirectory(removal.path.c_str());
        });
        unlock();
        EXPECT_EQ(removed, removal.removed) << removal.path;
    }
    const std::string line = sourceFile + std::string(", line#: "), recursive = "---Recursive: ";
    std::string expected;
    for (const std::string& text :
         {line + "path to " + at("missing") + " is invalid",
          sourceFile + (", line #: unknown error " + std::to_string(fileRmdirErrno)),
          recursive + slashed("tree") + finalSeparator, recursive + slashed("tree/deeper"),
          recursive + slashed("tree/deeper/empty"), recursive + at("h"),
          "Could not erase file " + at("h/held.txt"), recursive + at("x"), recursive + at("x/y"),
          line + "a programm has an open handle to the directory " + at("x/y"),
          "Could not erase directory " + at("x/y") + " error is " +
              std::to_string(lockedFolderCode),
          line + "given path " + at("x") +
              " is not a directory, the directory is not empty or "
              "the directory is either the current working directory or the root directory",
          "Could not erase directory " + at("x") + " error is " +
              std::to_string(notEmptyFolderCode)})
        expected += text + "\n";
    output = std::regex_replace(output, std::regex("---File Found.*\n"), "");
    EXPECT_EQ(std::regex_replace(output, std::regex("(, line ?)[0-9]+:"), "$1#:"), expected);
    EXPECT_TRUE(!fs::exists(root / "empty") && !fs::exists(root / "tree") &&
                fs::exists(root / "h/held.txt") && fs::exists(root / "x/y"));
}

// A folder "tmp*" in the folder the environment names (main checks that it goes at exit).
TEST_F(SystemTest, TemporaryFolders) {
    static std::string variable = tempVariable + at("");
    putenv(variable.data());
    const fs::path folder =
        temporaryFolders.emplace_back(System::instance().createTemporaryFolder());
    putenv(const_cast<char*>(tempVariable)); // back to naming no folder
    EXPECT_TRUE(fs::equivalent(folder.parent_path(), root));
    EXPECT_EQ(folder.filename().string().rfind("tmp", 0), 0u);
    std::ofstream(folder / "data.bin") << "data";
}

// The Unicode path mode: a path is checked as UTF-8 and shown safely, and the helpers reach names
// in and beyond code page 1252 and paths past MAX_PATH (the wide functions on Windows), in the
// temporary folder of a user whose name is not ASCII.
TEST_F(SystemTest, UnicodePaths) {
    const size_t none = std::string::npos;
    const struct {
        std::string text;
        size_t offset;
        std::string shown;
    } texts[] = {
        {u8"\u00d85_\u0142\u00f3d\u017a \u65e5\U0001f600", none,
         u8"\u00d85_\u0142\u00f3d\u017a \u65e5\U0001f600"},
        {"a\xd8z", 1, "a\\xD8z"},                        // Latin-1
        {"\xc0\xaf", 0, "\\xC0\\xAF"},                   // an overlong "/"
        {"x\xed\xa0\x80", 1, "x\\xED\\xA0\\x80"},        // a surrogate
        {"\xf4\x90\x80\x80", 0, "\\xF4\\x90\\x80\\x80"}, // past U+10FFFF
        {"ab\xe2\x82", 2, "ab\\xE2\\x82"},               // cut short
        {"t\x1b[2J\x7f", none, "t\\x1B[2J\\x7F"},        // valid, but not for a terminal
        {u8"c1\u009b31m", none, "c1\\xC2\\x9B31m"},      // U+009B, a terminal's CSI too
    };
    for (const auto& t : texts) {
        EXPECT_EQ(UnicodePaths::invalidUtf8Offset(t.text), t.offset) << t.shown;
        EXPECT_EQ(UnicodePaths::escaped(t.text), t.shown);
    }

    // u8 literals: UTF-8 whatever the compiler's own character set.
    const std::string user = at("") + separator + u8"J\u00f6rg \u0141\u00f3d\u017a \u65e5\u672c",
                      calibration = user + separator + u8"Kalibrierung_\u00d85",
                      csv = separator + u8"\u65e5\u672c.csv";
    std::string deep = calibration;
    ASSERT_TRUE(makeFolder(user) && makeFolder(deep));
    while (deep.size() < 300)
        ASSERT_TRUE(makeFolder(deep += separator + u8"\u0142\u00f3d\u017a_0123456789"));
    ASSERT_TRUE(makeFile(deep + csv));
    EXPECT_EQ(UnicodePaths::pathKind(nullptr), 0);
    EXPECT_EQ(UnicodePaths::pathKind((user + separator + "missing").c_str()), 0);
    EXPECT_EQ(UnicodePaths::pathKind("a\xd8"), 0);
    EXPECT_EQ(UnicodePaths::pathKind(deep.c_str()), 2);
    EXPECT_EQ(UnicodePaths::pathKind((deep + csv).c_str()), 1);

    setTemporaryFolder(user);
    const std::string folder = UnicodePaths::createTemporaryFolder();
    setTemporaryFolder("");
    ASSERT_EQ(UnicodePaths::pathKind(folder.c_str()), 2) << folder;
    EXPECT_EQ(folder.rfind(user, 0), 0u) << folder;
    temporaryFolders.push_back(fs::u8path(folder));
    const std::string walked =
        capture([&] { EXPECT_TRUE(UnicodePaths::removeDirectoryRecursively(calibration)); });
    EXPECT_NE(walked.find("---Recursive: " + calibration + "\n"), std::string::npos) << walked;
    EXPECT_EQ(UnicodePaths::pathKind(calibration.c_str()), 0);
    EXPECT_FALSE(UnicodePaths::removeDirectory(user.c_str())); // holds the temporary folder
}

} // namespace

int main(int argc, char** argv) {
#ifndef _WIN32 // root ignores the permissions that make an entry resist: run as "nobody"
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0 ||
                           prctl(PR_SET_DUMPABLE, 1) != 0))
        return 2;
#endif
    // Made before the System instance, so it runs after the instance is gone.
    std::atexit([] {
        for (const fs::path& folder : temporaryFolders)
            if (fs::exists(folder)) {
                std::fprintf(stderr, "%s outlived the System instance\n", folder.string().c_str());
                std::_Exit(3);
            }
    });
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
