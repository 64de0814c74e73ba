// The folder walk and the removal of a folder on Windows, written once for both ways a path is
// held: ANSI code page strings through the "A" functions (System) and UTF-8 strings through the
// "W" functions (UnicodePaths). `Files` supplies the system calls; every result, order and debug
// line is the same for both. Also what removeTree (SystemCommon.h) asks of `Files`.
#pragma once

#include "SystemCommon.h"

#include <cerrno>
#include <cstring>
#include <list>
#include <string>
#include <windows.h>

namespace measurement::platform {

// Explains a failed folder removal on the debug output, by the errno of _rmdir or _wrmdir.
// Defined in winSystem.cpp: the lines name that file and their line in it.
void explainRemoveFailure(int error, const char* path);

template <class Files> bool removeDirectoryWith(const char* path) {
    if (Files::removeFolder(path) == 0)
        return true;
    explainRemoveFailure(errno, path);
    return false;
}

template <class Files>
bool findFilesWith(const std::string& directory, std::list<FileEntry>& entries) {
    if (Files::pathKind(directory.c_str()) != 2)
        return false;
    // The separator follows the caller's spelling of the path.
    std::string pattern = directory;
    if (pattern.empty() || (pattern.back() != '/' && pattern.back() != '\\'))
        pattern += directory.find('/') != std::string::npos ? '/' : '\\';
    pattern += '*';
    typename Files::Found found;
    const HANDLE search = Files::findFirst(pattern, found);
    debugPrint("---Recursive: %s", directory.c_str());
    if (search == INVALID_HANDLE_VALUE)
        return false;
    const std::string prefix = pattern.substr(0, pattern.size() - 1);
    bool complete = true;
    do {
        const std::string name = Files::name(found);
        if (name == "." || name == "..")
            continue;
        const std::string fullPath = prefix + name;
        const DWORD attributes = Files::attributes(fullPath);
        if (!name.empty())
            debugPrint("---File Found: %s, attributes %d", fullPath.c_str(),
                       static_cast<int>(attributes));
        const bool isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        entries.push_back({fullPath, isDirectory});
        if (isDirectory && !findFilesWith<Files>(fullPath, entries)) {
            complete = false;
            break;
        }
    } while (Files::findNext(search, found));
    FindClose(search);
    return complete;
}

} // namespace measurement::platform
