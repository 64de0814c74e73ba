// How one upload names files to the system. The narrow mode, the default, takes paths in the
// system's 8-bit encoding (the ANSI code page on Windows) as the library always has; the Unicode
// mode, opted in per handle, takes them in UTF-8 and works on the real name at every step.
#pragma once

#include <QByteArray>
#include <QString>
#include <string>

namespace measurement::dataExchange {

class UploadPaths {
public:
    explicit UploadPaths(bool unicode = false) : unicodeMode(unicode) {}

    bool unicode() const { return unicodeMode; }

    // 0: missing, 1: a file, 2: a folder.
    int kind(const char* path) const;
    // A new temporary folder, removed at unload; "" on failure.
    std::string makeTemporaryFolder() const;
    bool removeFolder(const std::string& path) const;
    bool removeTree(const std::string& path) const;
    // A path as 8-bit text for the debug output and the zip writer's warnings, and back.
    QByteArray bytes(const QString& path) const;
    QString fromBytes(const QByteArray& path) const;

    // The messages of a path that is not UTF-8 (its first bad byte at `offset`): refused by the
    // Unicode mode, and, for verified delivery in the narrow mode, the cause of a failure that
    // the Unicode mode would avoid. `what` is "File or folder" or "Temporary folder".
    static std::string notUtf8(const std::string& path, size_t offset);
    static std::string needsUnicode(const char* what, const std::string& path, size_t offset);

private:
    bool unicodeMode;
};

} // namespace measurement::dataExchange
