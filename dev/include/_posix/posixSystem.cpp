// Linux implementation of the platform layer: debug lines go to standard error, the file-system
// helpers use the POSIX calls that match the Windows ones of winSystem.cpp step by step, so that
// both produce the same results, orders and messages.
#include "SystemCommon.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr const char* thisFile = measurement::platform::fileName(__FILE__);
} // namespace

void debugPrint(const char* format, ...) {
    if (format == nullptr)
        return;
    // errno is kept for callers that log a failure and then report its code.
    const int savedErrno = errno;
    measurement::platform::DebugLine line;
    va_list args;
    va_start(args, format);
    const bool formatted = measurement::platform::formatDebugLine(line, format, args);
    va_end(args);
    // A single write keeps lines of concurrent threads apart.
    if (formatted && !measurement::platform::deliverDebugLine(line))
        while (::write(STDERR_FILENO, line, std::strlen(line)) < 0 && errno == EINTR) {
        }
    errno = savedErrno;
}

namespace measurement {

int System::pathKind(const char* path) {
    if (path == nullptr || ::access(path, F_OK) != 0)
        return 0;
    struct stat info;
    if (::stat(path, &info) != 0)
        return 0;
    return S_ISDIR(info.st_mode) ? 2 : 1;
}

std::string System::createTemporaryFolder() {
    // Like the Windows temporary folder: the user's choice when it names a folder, else /tmp.
    const char* base = std::getenv("TMPDIR");
    if (pathKind(base) != 2)
        base = "/tmp";
    std::string folder(base);
    if (folder.back() != '/')
        folder += '/';
    folder += "tmpXXXXXX";
    if (::mkdtemp(folder.data()) == nullptr)
        return {};
    // Uploads on different handles may run on different threads at once.
    const std::lock_guard<std::mutex> lock(temporaryFoldersMutex);
    temporaryFolders.push_back(folder);
    return folder;
}

bool System::copyFile(const char* source, const char* target) {
    const int in = ::open(source, O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    struct stat info;
    const int out = ::fstat(in, &info) == 0
                        ? ::open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)
                        : -1;
    bool copied = out >= 0;
    for (ssize_t moved = 1; copied && moved > 0;) {
        moved = ::copy_file_range(in, nullptr, out, nullptr, 1u << 30, 0);
        copied = moved >= 0;
    }
    // As QFile::copy does: the source's permission bits, whatever the umask.
    copied = copied && ::fchmod(out, info.st_mode & 0777) == 0;
    if (out >= 0 && ::close(out) != 0)
        copied = false;
    ::close(in);
    if (!copied && out >= 0)
        ::unlink(target);
    return copied;
}

bool System::removeDirectory(const char* path) {
    if (::rmdir(path) == 0)
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
    case EEXIST: // what some systems report for a non-empty folder
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
    std::string prefix = directory;
    if (prefix.back() != '/')
        prefix += '/';
    DIR* folder = ::opendir(directory.c_str());
    debugPrint("---Recursive: %s", directory.c_str());
    if (folder == nullptr)
        return false;
    bool complete = true;
    while (const dirent* found = ::readdir(folder)) {
        const char* name = found->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        const std::string fullPath = prefix + name;
        // lstat: a symbolic link is an entry of its own, never a way out of the tree.
        struct stat info;
        const bool known = ::lstat(fullPath.c_str(), &info) == 0;
        if (name[0] != '\0')
            debugPrint("---File Found: %s, attributes %d", fullPath.c_str(),
                       known ? static_cast<int>(info.st_mode) : -1);
        if (!known) {
            complete = false;
            break;
        }
        const bool isDirectory = S_ISDIR(info.st_mode);
        entries.push_back({fullPath, isDirectory});
        if (isDirectory && !findFiles(fullPath, true, entries)) {
            complete = false;
            break;
        }
    }
    ::closedir(folder);
    return complete;
}

namespace {

struct PosixFiles {
    static bool findFiles(const std::string& directory, std::list<FileEntry>& entries) {
        return System::findFiles(directory, false, entries);
    }
    static bool deleteFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }
    static bool removeDirectory(const char* path) { return System::removeDirectory(path); }
    static int lastError() { return errno; }
};

} // namespace

bool System::removeDirectoryRecursively(const std::string& path) {
    return platform::removeTree<PosixFiles>(path);
}

std::string System::libraryFolder() {
    static const char inThisLibrary = 0;
    Dl_info info;
    if (dladdr(&inThisLibrary, &info) == 0 || info.dli_fname == nullptr)
        return {};
    const std::string path = info.dli_fname;
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

} // namespace measurement
