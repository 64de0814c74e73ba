// What both implementations of the platform layer share: the name the messages give their source
// file and the bounded formatting of a debug line. Included by the implementations only.
#pragma once

#include "System.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

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

} // namespace measurement::platform
