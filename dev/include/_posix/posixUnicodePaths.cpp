// Linux: UTF-8 is the file system's own encoding, so the Unicode path mode is System's helpers.
#include "System.h"
#include "UnicodePaths.h"

namespace measurement {

int UnicodePaths::pathKind(const char* path) {
    return System::pathKind(path);
}

std::string UnicodePaths::createTemporaryFolder() {
    return System::instance().createTemporaryFolder();
}

bool UnicodePaths::removeDirectory(const char* path) {
    return System::removeDirectory(path);
}

bool UnicodePaths::removeDirectoryRecursively(const std::string& path) {
    return System::removeDirectoryRecursively(path);
}

} // namespace measurement
