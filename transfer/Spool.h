// The spool: a folder of the host's where items whose delivery failed wait to be sent again, so
// that nothing is lost when the server is away, the application closes or the PC restarts.
//
// Each item is a folder "<yyyyMMdd-hhmmsszzz>-<8 hex digits>" holding the packed file and
// manifest.json (what the upload was configured with, where it goes, what happened). It appears
// whole or not at all: it is made as ".<item>.incoming" and renamed once its manifest is
// written, and the manifest itself is replaced by a rename. "<item>.lock" beside it is a
// QLockFile that only one process holds while it sends the item; a crashed holder's lock is
// taken over. A delivered item is renamed to "<item>.done" before it is removed, and what a
// crash leaves of that is removed by the next send.
#pragma once

#include <QDir>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <string>

struct dataExchangeLibraryImp;

namespace measurement::dataExchange {

class FileHandler;

class Spool {
public:
    explicit Spool(const QString& folder) : root(folder) {}

    // Moves the item at packedPath into the spool with the handler's description; message
    // says where it is kept, or why it could not be.
    bool keep(const FileHandler& handler, const QString& packedPath, std::string& message);

    // Sends every item, oldest first, with the handle's opt-in settings and verified delivery
    // on; messages go to the handle's error list. Returns the export's result.
    int32_t sendAll(dataExchangeLibraryImp& handle, uint32_t& delivered, uint32_t& remaining);

    // One line an item: "<item>\t<packed name>\t<destinations>\t<attempts>\t<last cause>\n".
    std::string list(dataExchangeLibraryImp& handle);

private:
    QStringList _items() const;
    bool _readManifest(const QString& item, QJsonObject& manifest) const;
    bool _writeManifest(const QString& folder, const QJsonObject& manifest) const;
    void _setAside(dataExchangeLibraryImp& handle, const QString& item, const char* why);
    void _recover(dataExchangeLibraryImp& handle);

    QDir root;
};

} // namespace measurement::dataExchange
