// Windows implementation of the platform layer: debug lines go to the debugger's output, the
// file-system helpers use the "A" functions and the C runtime, with 8-bit paths in the ANSI code
// page.
#if defined(__MINGW32__) && !defined(__USE_MINGW_ANSI_STDIO)
// MinGW's own C99 formatting: msvcrt's leaves a cut text unterminated and returns -1 for it.
#define __USE_MINGW_ANSI_STDIO 1
#endif

#include "SystemCommon.h"

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
    if (measurement::platform::formatDebugLine(line, format, args))
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

bool System::removeDirectory(const char* path) {
    if (_rmdir(path) == 0)
        return true;
    const int error = errno;
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
    return false;
}

bool System::findFiles(const std::string& directory, bool nested, std::list<FileEntry>& entries) {
    static_cast<void>(nested);
    if (pathKind(directory.c_str()) != 2)
        return false;
    // The separator follows the caller's spelling of the path.
    std::string pattern = directory;
    if (pattern.empty() || (pattern.back() != '/' && pattern.back() != '\\'))
        pattern += directory.find('/') != std::string::npos ? '/' : '\\';
    pattern += '*';
    WIN32_FIND_DATAA found;
    const HANDLE search = FindFirstFileA(pattern.c_str(), &found);
    debugPrint("---Recursive: %s", directory.c_str());
    if (search == INVALID_HANDLE_VALUE)
        return false;
    const std::string prefix = pattern.substr(0, pattern.size() - 1);
    bool complete = true;
    do {
        const char* name = found.cFileName;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        const std::string fullPath = prefix + name;
        const DWORD attributes = GetFileAttributesA(fullPath.c_str());
        if (name[0] != '\0')
            debugPrint("---File Found: %s, attributes %d", fullPath.c_str(),
                       static_cast<int>(attributes));
        const bool isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        entries.push_back({fullPath, isDirectory});
        if (isDirectory && !findFiles(fullPath, true, entries)) {
            complete = false;
            break;
        }
    } while (FindNextFileA(search, &found));
    FindClose(search);
    return complete;
}

bool System::removeDirectoryRecursively(const std::string& path) {
    std::list<FileEntry> entries;
    if (!findFiles(path, false, entries))
        return false;
    entries.push_front({path, true});

    // Folders are only touched once every file is gone, so a tree that resists stays whole.
    bool filesErased = true;
    for (const FileEntry& entry : entries) {
        if (!entry.isDirectory && !DeleteFileA(entry.path.c_str())) {
            debugPrint("Could not erase file %s", entry.path.c_str());
            filesErased = false;
        }
    }
    if (!filesErased)
        return false;
    entries.remove_if([](const FileEntry& entry) { return !entry.isDirectory; });

    // Pre-order reversed: every folder goes after the folders inside it.
    bool removed = true;
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        if (!removeDirectory(entry->path.c_str())) {
            debugPrint("Could not erase directory %s error is %d", entry->path.c_str(),
                       static_cast<int>(GetLastError()));
            removed = false;
        }
    }
    return removed;
}

} // namespace measurement
