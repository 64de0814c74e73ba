// Placeholder until the Linux platform layer lands: enough for the rest of the library to link.
#include "System.h"

#include <cstdarg>
#include <cstdio>

void debugPrint(const char* format, ...) {
    if (format == nullptr)
        return;
    char line[1025];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(line, 1024, format, args);
    va_end(args);
    if (n < 0)
        return;
    std::fprintf(stderr, "%s\n", line);
}

namespace measurement {
System::System() = default;
System::~System() = default;
System& System::instance() {
    static System system;
    return system;
}
int System::pathKind(const char*) { return 0; }
std::string System::createTemporaryFolder() { return {}; }
bool System::removeDirectory(const char*) { return false; }
bool System::removeDirectoryRecursively(const std::string&) { return false; }
bool System::findFiles(const std::string&, bool, std::list<FileEntry>&) { return false; }
} // namespace measurement
