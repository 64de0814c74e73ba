// The parts of System that need no system call, shared by both platforms.
#include "System.h"
#include "UnicodePaths.h"

namespace measurement {

System::System() = default;

System::~System() {
    for (const std::string& folder : temporaryFolders)
        removeDirectoryRecursively(folder);
    temporaryFolders.clear();
    for (const std::string& folder : unicodeTemporaryFolders)
        UnicodePaths::removeDirectoryRecursively(folder);
    unicodeTemporaryFolders.clear();
}

System& System::instance() {
    static System system;
    return system;
}

} // namespace measurement
