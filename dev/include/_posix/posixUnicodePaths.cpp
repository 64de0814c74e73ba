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

// A name that is not UTF-8 on a system whose names are has no other reading.
std::string UnicodePaths::fromSystem(const std::string& text) {
    return invalidUtf8Offset(text) == std::string::npos ? text : escaped(text);
}

bool UnicodePaths::removeDirectoryRecursively(const std::string& path) {
    return System::removeDirectoryRecursively(path);
}

} // namespace measurement
