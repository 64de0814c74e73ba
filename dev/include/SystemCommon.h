// What both implementations of the platform layer share: the name the messages give their source
// file and the bounded formatting of a debug line. Included by the implementations only.
#pragma once

#include "LogSink.h"
#include "System.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>

namespace measurement::platform {

// The file name of a source path, without its folder (forward slashes first, then backslashes).
constexpr const char* fileName(const char* path) {
    const char* name = path;
    for (const char* c = path; *c != '\0'; ++c)
        if (*c == '/')
            name = c + 1;
    if (name != path)
        return name;
    for (const char* c = path; *c != '\0'; ++c)
        if (*c == '\\')
            name = c + 1;
    return name;
}

// 1023 characters at most, the line feed and the terminating zero.
using DebugLine = char[1025];

// Formats one debug line ending in "\n"; false (nothing to write) on a formatting error.
inline bool formatDebugLine(DebugLine& line, const char* format, va_list args) {
    if (std::vsnprintf(line, 1024, format, args) < 0)
        return false;
    const size_t length = std::strlen(line);
    line[length] = '\n';
    line[length + 1] = '\0';
    return true;
}

// Offers a formatted line to the host's callback, without its line end; false when it is not
// taken and goes to the default output.
inline bool deliverDebugLine(DebugLine& line) {
    const size_t end = std::strlen(line) - 1;
    line[end] = '\0';
    const bool taken = LogSink::deliver(LogDebug, line);
    line[end] = '\n';
    return taken;
}

// Removes a tree the same way on every platform and for every way a path is held. `Files`
// supplies findFiles (the walk, pre-order), deleteFile, removeDirectory and lastError.
template <class Files> bool removeTree(const std::string& path) {
    std::list<FileEntry> entries;
    if (!Files::findFiles(path, entries))
        return false;
    entries.push_front({path, true});

    // Folders are only touched once every file is gone, so a tree that resists stays whole.
    bool filesErased = true;
    for (const FileEntry& entry : entries) {
        if (!entry.isDirectory && !Files::deleteFile(entry.path)) {
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
        if (!Files::removeDirectory(entry->path.c_str())) {
            debugPrint("Could not erase directory %s error is %d", entry->path.c_str(),
                       Files::lastError());
            removed = false;
        }
    }
    return removed;
}

} // namespace measurement::platform
