// The work of one upload: configured from a handle's options, it packs the named file or folder
// into a fresh temporary folder and delivers the packed item. Lives on the upload call's stack.
#pragma once

#include "api/dataExchangeLibraryImp.h"
#include "server/RequestControl.h"
#include "transfer/Compression.h"
#include "transfer/ProgressReporter.h"
#include "transfer/UploadPaths.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QObject>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <string>

class QuaZip;

namespace measurement::dataExchange {

class ParallelPacker;
class ServerInteractor;

class FileHandler : public QObject {
    Q_OBJECT

public:
    explicit FileHandler(QObject* parent = nullptr);
    ~FileHandler() override = default;

    // Reads the options into the members and the settings table; false with error set when the
    // device or data type cannot be converted.
    bool configure(dataExchangeLibraryImp* handle);

    // Packs fileOrFolder and delivers it to each destination of location in turn until one
    // takes it; gives back the delivered file name and the destination.
    bool handleData(const QString& fileOrFolder, QString& writtenFileName, uint32_t& usedLocation);
    // Delivers an item packed already (by handleData, or kept in the spool) to each destination
    // of location in turn until one takes it.
    bool deliver(const QString& packedPath, QString& writtenFileName, uint32_t& usedLocation);

    // Opt-in behaviour set on the handle: progress and cancel, stall timeout, proxy.
    void useExtensions(const dataExchangeLibraryImp::Extensions& settings);
    bool cancelled() const { return progress.cancelled(); }
    // A failed delivery as the host is told it: error, or a fixed text where a step left none.
    std::string handlingFailure() const {
        return error.empty() ? "Unknown error handling data" : error;
    }
    // How this upload names files to the system.
    const UploadPaths& paths() const { return pathMode; }

    QString timeStamp;
    QString dataType;
    QString sourceName;
    QString packageName;
    uint32_t location = SharedFolderThenServer;
    QHash<QString, QVariant> settings;
    std::string error;
    // The folder this upload packed into (empty before packing).
    std::string temporaryFolder;
    // The server's answer to the upload: the name it stored the item under.
    QString storedName;
    // The upload was stored; only the job request is still to be made.
    bool uploadStored = false;
    // Where the spool keeps the item after a failed delivery, or why it could not.
    std::string kept;
    // Delivery attempts made, to the shared folder and to the server.
    uint32_t attempts = 0;

private:
    friend struct FileHandlerProbe; // lets the tests drive single steps

    bool _verifySource(const QString& source);
    bool _packData(const QString& source, QString& packedPath);
    bool _zipFolder(const QString& folder, QString& packedPath);
    Compression _compression() const;
    bool _zipOnThisThread(QuaZip& zip, QFile& zipFile, const QDir& dir, const QStringList& names,
                          const Compression& compression, const QByteArray& archiveName);
    bool _zipInParallel(QuaZip& zip, QFile& zipFile, ParallelPacker&& packer,
                        const QByteArray& archiveName);
    bool _performUpload(const QString& packedPath, const dataExchangeLocation& location);
    bool _deliverToServer(const QString& packedPath);
    bool _sendOnce(ServerInteractor& interactor, const QString& packedPath);
    RequestControl _requestControl(uint32_t stage);
    bool _stopped();

    dataExchangeLibraryImp::Extensions extensions;
    UploadPaths pathMode;
    ProgressReporter progress{nullptr, nullptr};
    quint64 packingTotal = 0;
    quint64 uploadTotal = 0;
};

} // namespace measurement::dataExchange
