// Windows implementation of the platform layer: debug lines go to the debugger's output, the
// file-system helpers use the "A" functions and the C runtime, with 8-bit paths in the ANSI code
// page.
#if defined(__MINGW32__) && !defined(__USE_MINGW_ANSI_STDIO)
// MinGW's own C99 formatting: msvcrt's leaves a cut text unterminated and returns -1 for it.
#define __USE_MINGW_ANSI_STDIO 1
#endif

#include "SystemCommon.h"
#include "_windows/winFileWalk.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

namespace {
constexpr const char* thisFile = measurement::platform::fileName(__FILE__);
} // namespace

void debugPrint(const char* format, ...) {
    if (format == nullptr)
        return;
    // Kept for callers that log a failure and then report its code.
    const DWORD savedLastError = GetLastError();
    const int savedErrno = errno;
    measurement::platform::DebugLine line;
    va_list args;
    va_start(args, format);
    if (measurement::platform::formatDebugLine(line, format, args) &&
        !measurement::platform::deliverDebugLine(line))
        OutputDebugStringA(line);
    va_end(args);
    errno = savedErrno;
    SetLastError(savedLastError);
}

namespace measurement {

int System::pathKind(const char* path) {
    if (path == nullptr || _access_s(path, 0) != 0)
        return 0;
    struct _stat64i32 info;
    if (_stat64i32(path, &info) != 0)
        return 0;
    return (info.st_mode & _S_IFDIR) != 0 ? 2 : 1;
}

std::string System::createTemporaryFolder() {
    // Uploads on different handles may run on different threads at once. The lock also spans
    // choosing the name and making the folder: _tempnam only promises a name that is free now,
    // so two threads could otherwise be given the same one.
    const std::lock_guard<std::mutex> lock(temporaryFoldersMutex);
    char base[MAX_PATH];
    const DWORD length = GetTempPathA(MAX_PATH, base);
    if (length == 0 || length > MAX_PATH)
        return {};
    // _tempnam prefers an existing folder named by TMP over the one given.
    char* name = _tempnam(base, "tmp");
    if (name == nullptr)
        return {};
    std::string folder(name);
    std::free(name);
    if (_mkdir(folder.c_str()) != 0)
        return {};
    temporaryFolders.push_back(folder);
    return folder;
}

bool System::copyFile(const char*, const char*) {
    return false;
}

namespace platform {

void explainRemoveFailure(int error, const char* path) {
    switch (error) {
    case ENOENT:
        debugPrint("%s, line%i: path to %s is invalid", thisFile, __LINE__, path);
        break;
    case EACCES:
        debugPrint("%s, line%i: a programm has an open handle to the directory %s", thisFile,
                   __LINE__, path);
        break;
    case ENOTEMPTY:
        debugPrint("%s, line%i: given path %s is not a directory, the directory is not empty or "
                   "the directory is either the current working directory or the root directory",
                   thisFile, __LINE__, path);
        break;
    default:
        debugPrint("%s, line %i: unknown error %i", thisFile, __LINE__, error);
        break;
    }
}

} // namespace platform

namespace {

// Paths in the ANSI code page, as the "A" functions and the C runtime take them.
struct AnsiFiles {
    using Found = WIN32_FIND_DATAA;
    static int pathKind(const char* path) { return System::pathKind(path); }
    static HANDLE findFirst(const std::string& pattern, Found& found) {
        return FindFirstFileA(pattern.c_str(), &found);
    }
    static bool findNext(HANDLE search, Found& found) { return FindNextFileA(search, &found) != 0; }
    static std::string name(const Found& found) { return found.cFileName; }
    static DWORD attributes(const std::string& path) { return GetFileAttributesA(path.c_str()); }
    static bool deleteFile(const std::string& path) { return DeleteFileA(path.c_str()) != 0; }
    static int removeFolder(const char* path) { return _rmdir(path); }
    static bool findFiles(const std::string& directory, std::list<FileEntry>& entries) {
        return platform::findFilesWith<AnsiFiles>(directory, entries);
    }
    static bool removeDirectory(const char* path) {
        return platform::removeDirectoryWith<AnsiFiles>(path);
    }
    static int lastError() { return static_cast<int>(GetLastError()); }
};

} // namespace

bool System::removeDirectory(const char* path) {
    return AnsiFiles::removeDirectory(path);
}

bool System::findFiles(const std::string& directory, bool nested, std::list<FileEntry>& entries) {
    static_cast<void>(nested);
    return AnsiFiles::findFiles(directory, entries);
}

bool System::removeDirectoryRecursively(const std::string& path) {
    return platform::removeTree<AnsiFiles>(path);
}

std::string System::libraryFolder() {
    static const char inThisModule = 0;
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&inThisModule), &module))
        return {};
    // 32,767 characters is the longest path Windows has; a shorter buffer reports truncation.
    std::wstring path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(module, path.data(), DWORD(path.size()));
    if (length == 0 || length >= path.size())
        return {};
    const size_t slash = path.find_last_of(L"\\/", length);
    path.resize(slash == std::wstring::npos ? 0 : slash);
    const int size = WideCharToMultiByte(CP_UTF8, 0, path.data(), int(path.size()), nullptr, 0,
                                         nullptr, nullptr);
    std::string folder(size_t(size > 0 ? size : 0), '\0');
    WideCharToMultiByte(CP_UTF8, 0, path.data(), int(path.size()), folder.data(), size, nullptr,
                        nullptr);
    for (char& c : folder)
        if (c == '\\')
            c = '/';
    return folder;
}

} // namespace measurement
