// The Unicode path mode of the platform layer: the same helpers as System, on paths in UTF-8.
// On Windows they use the wide ("W") functions, so any name works, however far it lies outside
// the ANSI code page, and paths longer than MAX_PATH are given the "\\?\" prefix; on other
// systems UTF-8 already is the file system's encoding and they are System's own.
#pragma once

#include <cstddef>
#include <string>

namespace measurement {

class UnicodePaths {
public:
    // The offset of the first byte that does not belong to a well-formed UTF-8 sequence
    // (overlong forms, surrogates and code points past U+10FFFF are not), or npos.
    static size_t invalidUtf8Offset(const std::string& text);
    // The text with every byte outside a well-formed sequence, and every control character
    // (C0, DEL, C1), written as \xNN: what a message or a terminal may safely show of text that
    // came from outside.
    static std::string escaped(const std::string& text);
    // Text in the system's 8-bit encoding (a path from toLocal8Bit) as UTF-8: unchanged when it
    // is UTF-8 already; else on Windows read in the ANSI code page, elsewhere escaped.
    static std::string fromSystem(const std::string& text);

    // 0: missing, 1: exists and is not a folder, 2: folder.
    static int pathKind(const char* path);
    // A new, empty folder in the user's temporary folder, removed with the System instance;
    // "" on failure.
    static std::string createTemporaryFolder();
    static bool removeDirectory(const char* path);
    static bool removeDirectoryRecursively(const std::string& path);
};

} // namespace measurement
