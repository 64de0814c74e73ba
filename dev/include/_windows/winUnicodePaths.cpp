// Windows: the Unicode path mode through the wide ("W") functions. Paths stay UTF-8 strings
// everywhere else in the library and become UTF-16 only at the system call, so a name outside the
// ANSI code page (a user "Jörg" in code page 932, a folder "łódź" in 1252) is never lost.
#include "UnicodePaths.h"

#include "System.h"
#include "_windows/winFileWalk.h"

#include <cerrno>
#include <mutex>
#include <string>
#include <wchar.h>
#include <windows.h>

namespace measurement {

namespace {

std::wstring toUtf16(const std::string& text, UINT codePage = CP_UTF8) {
    const int size = static_cast<int>(text.size());
    std::wstring wide(
        static_cast<size_t>(MultiByteToWideChar(codePage, 0, text.data(), size, nullptr, 0)),
        L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), size, wide.data(), static_cast<int>(wide.size()));
    return wide;
}

std::string toUtf8(const wchar_t* text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return {};
    std::string narrow(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.data(), size, nullptr, nullptr);
    narrow.pop_back(); // the terminating zero
    return narrow;
}

// The path as the W functions take it. Past MAX_PATH only the "\\?\" form reaches a file, and
// that form is passed on unparsed: it needs backslashes and an absolute path.
std::wstring systemPath(const std::string& path) {
    std::wstring wide = toUtf16(path);
    if (wide.size() < MAX_PATH - 12 || wide.compare(0, 4, L"\\\\?\\") == 0)
        return wide;
    for (wchar_t& c : wide)
        if (c == L'/')
            c = L'\\';
    if (wide.compare(0, 2, L"\\\\") == 0)
        return L"\\\\?\\UNC\\" + wide.substr(2);
    if (wide.size() > 2 && wide[1] == L':' && wide[2] == L'\\')
        return L"\\\\?\\" + wide;
    return wide;
}

struct WideFiles {
    using Found = WIN32_FIND_DATAW;
    static int pathKind(const char* path) { return UnicodePaths::pathKind(path); }
    static HANDLE findFirst(const std::string& pattern, Found& found) {
        return FindFirstFileW(systemPath(pattern).c_str(), &found);
    }
    static bool findNext(HANDLE search, Found& found) { return FindNextFileW(search, &found) != 0; }
    static std::string name(const Found& found) { return toUtf8(found.cFileName); }
    static DWORD attributes(const std::string& path) {
        return GetFileAttributesW(systemPath(path).c_str());
    }
    static bool deleteFile(const std::string& path) {
        return DeleteFileW(systemPath(path).c_str()) != 0;
    }
    static int removeFolder(const char* path) { return _wrmdir(systemPath(path).c_str()); }
    static bool findFiles(const std::string& directory, std::list<FileEntry>& entries) {
        return platform::findFilesWith<WideFiles>(directory, entries);
    }
    static bool removeDirectory(const char* path) {
        return platform::removeDirectoryWith<WideFiles>(path);
    }
    static int lastError() { return static_cast<int>(GetLastError()); }
};

} // namespace

std::string UnicodePaths::fromSystem(const std::string& text) {
    return invalidUtf8Offset(text) == std::string::npos ? text
                                                        : toUtf8(toUtf16(text, CP_ACP).c_str());
}

int UnicodePaths::pathKind(const char* path) {
    if (path == nullptr || invalidUtf8Offset(path) != std::string::npos)
        return 0;
    const DWORD attributes = GetFileAttributesW(systemPath(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return 0;
    return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? 2 : 1;
}

std::string UnicodePaths::createTemporaryFolder() {
    // The user's own temporary folder, by its real name: the ANSI one of a user "Jörg" on a
    // system whose code page lacks "ö" names a folder that does not exist.
    wchar_t base[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, base);
    if (length == 0 || length > MAX_PATH)
        return {};
    System& system = System::instance();
    const std::lock_guard<std::mutex> lock(system.temporaryFoldersMutex);
    // "tmpXXXX.tmp" like the narrow mode's folders; a name is taken only by making the folder,
    // so a name that exists already just moves the counter on.
    const DWORD start = GetTickCount();
    for (UINT attempt = 0; attempt < 0x10000; ++attempt) {
        const UINT unique = (start + attempt) & 0xffff;
        wchar_t name[MAX_PATH];
        if (unique == 0 || GetTempFileNameW(base, L"tmp", unique, name) == 0)
            continue;
        if (CreateDirectoryW(name, nullptr)) {
            std::string folder = toUtf8(name);
            system.unicodeTemporaryFolders.push_back(folder);
            return folder;
        }
        if (GetLastError() != ERROR_ALREADY_EXISTS)
            return {};
    }
    return {};
}

bool UnicodePaths::removeDirectory(const char* path) {
    return WideFiles::removeDirectory(path);
}

bool UnicodePaths::removeDirectoryRecursively(const std::string& path) {
    return platform::removeTree<WideFiles>(path);
}

} // namespace measurement
