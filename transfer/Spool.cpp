#include "transfer/Spool.h"

#include "api/dataExchangeLibraryImp.h"
#include "transfer/FileHandler.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLockFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSaveFile>

namespace measurement::dataExchange {

namespace {

const QString manifestName = QStringLiteral("manifest.json");
constexpr int manifestFormat = 1;
// A manifest is a few hundred bytes; anything much larger is not one of ours.
constexpr qint64 manifestLimit = 1 << 20;

std::string quoted(const QString& text) {
    return "'" + text.toStdString() + "'";
}

QString itemName(const QString& folderName) {
    static const QRegularExpression pattern(QStringLiteral("^\\d{8}-\\d{9}-[0-9a-f]{8}$"));
    return pattern.match(folderName).hasMatch() ? folderName : QString();
}

// The values the upload was configured with, as FileHandler::configure left them.
QJsonObject describe(const FileHandler& handler, const QString& packedName) {
    QJsonObject settings;
    for (auto it = handler.settings.cbegin(); it != handler.settings.cend(); ++it)
        settings.insert(it.key(), it.value().toString()); // "sn" as text: 64 bits stay exact
    return {{"format", manifestFormat},
            {"packed", packedName},
            {"timeStamp", handler.timeStamp},
            {"dataType", handler.dataType},
            {"sourceName", handler.sourceName},
            {"location", qint64(handler.location)},
            {"settings", settings},
            {"uploadStored", handler.uploadStored},
            {"storedName", handler.storedName},
            {"attempts", qint64(handler.attempts)},
            {"causes", QString::fromStdString(handler.handlingFailure())}};
}

bool restore(FileHandler& handler, const QJsonObject& manifest) {
    const QJsonObject settings = manifest.value("settings").toObject();
    bool serial = false;
    const quint64 sn = settings.value("sn").toString().toULongLong(&serial);
    if (manifest.value("format").toInt() != manifestFormat || !serial ||
        manifest.value("packed").toString().isEmpty())
        return false;
    handler.timeStamp = manifest.value("timeStamp").toString();
    handler.dataType = manifest.value("dataType").toString();
    handler.sourceName = manifest.value("sourceName").toString();
    handler.packageName = manifest.value("packed").toString();
    handler.location = uint32_t(manifest.value("location").toInt());
    for (auto it = settings.constBegin(); it != settings.constEnd(); ++it)
        handler.settings.insert(it.key(), it.value().toString());
    handler.settings.insert("sn", QVariant::fromValue<quint64>(sn));
    handler.uploadStored = manifest.value("uploadStored").toBool();
    handler.storedName = manifest.value("storedName").toString();
    return true;
}

// Takes the lock unless a live process holds it. A lock file that names no holder (its maker
// ended between creating and writing it) is never judged stale by QLockFile;
// removeStaleLockFile removes it only when no process holds the system's lock on it.
bool take(QLockFile& lock, const QString& path) {
    lock.setStaleLockTime(0); // only a holder that is gone gives its lock up
    if (!lock.tryLock(0) && QFileInfo(path).size() == 0 && lock.removeStaleLockFile())
        lock.tryLock(0);
    return lock.isLocked();
}

} // namespace

bool Spool::keep(const FileHandler& handler, const QString& packedPath, std::string& message) {
    const QString packedName = QFileInfo(packedPath).fileName();
    const QString item = QDateTime::currentDateTimeUtc().toString("yyyyMMdd-hhmmsszzz") + '-' +
                         QString::number(QRandomGenerator::global()->generate() | 0x10000000u, 16);
    const QString incoming = root.filePath('.' + item + ".incoming");
    // Held until the item is whole, so that a send in another process tells a keep in progress
    // from one that crashed.
    QLockFile keeping(root.filePath('.' + item + ".lock"));
    const QJsonObject manifest = describe(handler, packedName);
    const bool kept = root.mkpath(incoming) && keeping.tryLock(0) &&
                      QFile::rename(packedPath, QDir(incoming).filePath(packedName)) &&
                      _writeManifest(incoming, manifest) && root.rename(incoming, item);
    if (!kept) {
        // The packed item goes back where it was, if it got as far as the spool; should even
        // that fail, the half-made item stays for the next send to set aside, never deleted.
        const QString moved = QDir(incoming).filePath(packedName);
        if (!QFileInfo::exists(moved) || QFile::rename(moved, packedPath))
            QDir(incoming).removeRecursively();
        message = "Could not keep the packed item in the spool " + quoted(root.path());
        return false;
    }
    message = "The packed item is kept in the spool as " + quoted(root.filePath(item));
    return true;
}

int32_t Spool::sendAll(dataExchangeLibraryImp& handle, uint32_t& delivered, uint32_t& remaining) {
    delivered = remaining = 0;
    _recover(handle);
    dataExchangeLibraryImp::Extensions extensions = handle.extensions;
    extensions.verifiedDelivery = true;
    extensions.removePackage = false;
    extensions.spoolFolder.clear();
    for (const QString& item : _items()) {
        QLockFile sending(root.filePath(item + ".lock"));
        if (!take(sending, root.filePath(item + ".lock"))) {
            ++remaining;
            handle.appendError("Spooled item " + quoted(item) +
                               " is being sent by another process");
            continue;
        }
        QJsonObject manifest;
        if (!root.exists(item)) // sent by another process since the listing
            continue;
        FileHandler handler;
        if (!_readManifest(item, manifest) || !restore(handler, manifest)) {
            ++remaining;
            _setAside(handle, item, "has an unreadable manifest");
            continue;
        }
        const QString packedPath = QDir(root.filePath(item)).filePath(handler.packageName);
        if (!QFileInfo::exists(packedPath)) {
            ++remaining;
            _setAside(handle, item, "has lost its packed file");
            continue;
        }
        handler.useExtensions(extensions);
        QString name;
        uint32_t used = 0;
        if (handler.deliver(packedPath, name, used)) {
            ++delivered;
            // Renamed first: a crash now leaves a folder the next send removes, not an item.
            if (root.rename(item, item + ".done"))
                QDir(root.filePath(item + ".done")).removeRecursively();
            continue;
        }
        ++remaining;
        const bool cancelled = handler.cancelled();
        handler.attempts += uint32_t(manifest.value("attempts").toInt());
        manifest = describe(handler, handler.packageName);
        _writeManifest(root.filePath(item), manifest);
        handle.appendError("Spooled item " + quoted(item) + ": " + handler.handlingFailure());
        if (cancelled)
            break;
    }
    return remaining == 0 ? Success : DataHandlingFailed;
}

std::string Spool::list(dataExchangeLibraryImp& handle) {
    std::string text;
    for (const QString& item : _items()) {
        QJsonObject manifest;
        if (!_readManifest(item, manifest)) {
            _setAside(handle, item, "has an unreadable manifest");
            continue;
        }
        const uint32_t location = uint32_t(manifest.value("location").toInt());
        const char* destinations = location == 3 ? "1,2" : location == 1 ? "1" : "2";
        QString cause = manifest.value("causes").toString();
        cause.replace('\n', ' ').replace('\t', ' ').replace('\r', ' ');
        text += item.toStdString() + '\t' + manifest.value("packed").toString().toStdString() +
                '\t' + destinations + '\t' + std::to_string(manifest.value("attempts").toInt()) +
                '\t' + cause.toStdString() + '\n';
    }
    return text;
}

QStringList Spool::_items() const {
    QStringList items;
    if (!root.exists())
        return items;
    for (const QString& name : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
        if (!itemName(name).isEmpty())
            items << name;
    return items;
}

bool Spool::_readManifest(const QString& item, QJsonObject& manifest) const {
    QFile file(QDir(root.filePath(item)).filePath(manifestName));
    if (!file.open(QIODevice::ReadOnly) || file.size() > manifestLimit)
        return false;
    QJsonParseError problem;
    const QJsonDocument document = QJsonDocument::fromJson(file.read(manifestLimit), &problem);
    manifest = document.object();
    return problem.error == QJsonParseError::NoError && document.isObject();
}

bool Spool::_writeManifest(const QString& folder, const QJsonObject& manifest) const {
    // QSaveFile writes a temporary file and renames it over the old one when committed.
    QSaveFile file(QDir(folder).filePath(manifestName));
    return file.open(QIODevice::WriteOnly) && file.write(QJsonDocument(manifest).toJson()) >= 0 &&
           file.commit();
}

void Spool::_setAside(dataExchangeLibraryImp& handle, const QString& item, const char* why) {
    const QString aside = item + ".broken";
    if (!root.rename(item, aside)) {
        handle.appendError("Spooled item " + quoted(item) + " " + why);
        return;
    }
    handle.appendError("Spooled item " + quoted(item) + " " + why + "; set aside as " +
                       quoted(root.filePath(aside)) + " with its packed file");
}

// What crashes leave: delivered items not yet removed, and items kept only halfway.
void Spool::_recover(dataExchangeLibraryImp& handle) {
    if (!root.exists())
        return;
    for (const QString& name : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        if (name.endsWith(".done") && !itemName(name.chopped(5)).isEmpty()) {
            QDir(root.filePath(name)).removeRecursively();
            continue;
        }
        const QString item = name.mid(1).chopped(9); // ".<item>.incoming"
        if (!name.startsWith('.') || !name.endsWith(".incoming") || itemName(item).isEmpty())
            continue;
        QLockFile keeping(root.filePath('.' + item + ".lock"));
        if (!take(keeping, root.filePath('.' + item + ".lock"))) // still being kept
            continue;
        if (QFileInfo::exists(QDir(root.filePath(name)).filePath(manifestName)) &&
            root.rename(name, item))
            continue;
        // No manifest: the packed file alone, set aside rather than lost.
        if (root.rename(name, item + ".broken"))
            handle.appendError("Spooled item " + quoted(item) +
                               " was kept only halfway; set aside as " +
                               quoted(root.filePath(item + ".broken")) + " with its packed file");
    }
    // The lock of an item (or of a keep) that is gone: its holder ended after removing the item
    // (or finishing the keep) and before releasing the lock. Taken over and released, which
    // removes it.
    for (const QString& name : root.entryList({"*.lock"}, QDir::Files | QDir::Hidden)) {
        const bool ofKeep = name.startsWith('.');
        const QString item = name.mid(ofKeep ? 1 : 0).chopped(5);
        if (itemName(item).isEmpty() || root.exists(ofKeep ? '.' + item + ".incoming" : item))
            continue;
        QLockFile orphan(root.filePath(name));
        if (take(orphan, root.filePath(name)))
            orphan.unlock();
    }
}

} // namespace measurement::dataExchange
