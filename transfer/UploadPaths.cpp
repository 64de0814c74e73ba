#include "transfer/UploadPaths.h"

#include "System.h"
#include "UnicodePaths.h"

namespace measurement::dataExchange {

int UploadPaths::kind(const char* path) const {
    return unicodeMode ? UnicodePaths::pathKind(path) : System::pathKind(path);
}

std::string UploadPaths::makeTemporaryFolder() const {
    return unicodeMode ? UnicodePaths::createTemporaryFolder()
                       : System::instance().createTemporaryFolder();
}

bool UploadPaths::removeFolder(const std::string& path) const {
    return unicodeMode ? UnicodePaths::removeDirectory(path.c_str())
                       : System::removeDirectory(path.c_str());
}

bool UploadPaths::removeTree(const std::string& path) const {
    return unicodeMode ? UnicodePaths::removeDirectoryRecursively(path)
                       : System::removeDirectoryRecursively(path);
}

QByteArray UploadPaths::bytes(const QString& path) const {
    return unicodeMode ? path.toUtf8() : path.toLocal8Bit();
}

QString UploadPaths::fromBytes(const QByteArray& path) const {
    return unicodeMode ? QString::fromUtf8(path) : QString::fromLocal8Bit(path);
}

std::string UploadPaths::notUtf8(const std::string& path, size_t offset) {
    return "File or folder name is not valid UTF-8 at byte offset " + std::to_string(offset) +
           ": '" + UnicodePaths::escaped(path) + "'";
}

std::string UploadPaths::needsUnicode(const char* what, const std::string& path, size_t offset) {
    return std::string(what) + " '" + UnicodePaths::escaped(path) +
           "' is not valid UTF-8 at byte offset " + std::to_string(offset) +
           ": turn on Unicode paths (dataExchangeSetUnicodePaths) to use its real name";
}

} // namespace measurement::dataExchange
