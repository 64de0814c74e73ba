// Platform layer: the debug log line and the file-system helper. The implementation is chosen
// once by the build (_posix/ or _windows/); nothing else in the library includes a system
// header of either platform.
#pragma once

#include <list>
#include <mutex>
#include <string>

// MinGW formats with its own C99 printf (not msvcrt's), so the checks follow GNU rules there.
#if defined(__MINGW32__)
#define DATAEXCHANGE_PRINTF_FORMAT __attribute__((format(gnu_printf, 1, 2)))
#elif defined(__GNUC__) || defined(__clang__)
#define DATAEXCHANGE_PRINTF_FORMAT __attribute__((format(printf, 1, 2)))
#else
#define DATAEXCHANGE_PRINTF_FORMAT
#endif

// Writes one formatted line (at most 1023 characters, then "\n") to the host's log callback when
// one is set, else to the debug output: the debugger's output on Windows, standard error
// elsewhere. A null format or a formatting error writes nothing.
void debugPrint(const char* format, ...) DATAEXCHANGE_PRINTF_FORMAT;

namespace measurement {

struct FileEntry {
    std::string path;
    bool isDirectory = false;
};

class System {
public:
    static System& instance();
    virtual ~System();

    // 0: null or missing, 1: exists and is not a folder, 2: folder.
    static int pathKind(const char* path);

    // A new, empty folder, remembered for removal when the instance goes; "" on failure.
    // Safe to call from several threads: uploads on different handles may run at once.
    std::string createTemporaryFolder();

    // Copies a file into a new one (never over an existing file) with the source's permission
    // bits, the kernel moving the bytes. False, with nothing left at target, where it cannot:
    // always on Windows, where QFile::copy already hands the copy to the system's CopyFile.
    static bool copyFile(const char* source, const char* target);
    // Removes one empty folder; a failure is explained on the debug output.
    static bool removeDirectory(const char* path);
    // Deletes the files first and keeps every folder if one of them resists; then removes the
    // folders deepest first. False for a path that is not a folder, without any output.
    static bool removeDirectoryRecursively(const std::string& path);
    // Appends the tree below `directory` in pre-order (a folder before its contents); symbolic
    // links are entries, never followed. `nested` is informational only.
    static bool findFiles(const std::string& directory, bool nested, std::list<FileEntry>& entries);
    // The folder of the file this library was loaded from, as UTF-8 with forward slashes; "" where
    // the system does not tell. Where a DLL it loads itself ships beside it: a host's program
    // and its search path may be elsewhere.
    static std::string libraryFolder();

    // Appended to under temporaryFoldersMutex; read without it only once no upload can run
    // (at unload, or in a test after its uploads returned).
    std::list<std::string> temporaryFolders;
    // The same for folders made in the Unicode path mode, as UTF-8 (UnicodePaths).
    std::list<std::string> unicodeTemporaryFolders;
    std::mutex temporaryFoldersMutex;

private:
    System();
    System(const System&) = delete;
    System& operator=(const System&) = delete;

    // Settings the helper has always carried; nothing reads them.
    [[maybe_unused]] double scaleX = 1.0;
    [[maybe_unused]] double scaleY = 1.0;
    [[maybe_unused]] int reserved0 = 0;
    [[maybe_unused]] int reserved1 = 1;
};

} // namespace measurement
