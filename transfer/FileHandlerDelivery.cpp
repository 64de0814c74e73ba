// FileHandler: the driver of an upload and the delivery of the packed item to one destination.
#include "transfer/FileHandler.h"

#include "System.h"
#include "api/Signature.h"
#include "server/ServerInteractor.h"
#include "transfer/RetryPolicy.h"
#include "transfer/Spool.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QTextStream>
#include <vector>

namespace measurement::dataExchange {

namespace {

std::string quoted(const QString& text) {
    return "'" + text.toStdString() + "'";
}

std::vector<dataExchangeLocation> destinations(uint32_t location) {
    switch (location) {
    case SharedFolder:
        return {SharedFolder};
    case Server:
        return {Server};
    case SharedFolderThenServer:
        return {SharedFolder, Server};
    default:
        return {};
    }
}

// The ".info" side file and the server's form carry the same values; the serial goes as
// "0x" + hex into the file and as decimal onto the wire, both as the processing site reads them.
void writeInfo(QTextStream& out, const QHash<QString, QVariant>& settings) {
    out << "sn 0x" << QString::number(settings.value("sn").toULongLong(), 16) << '\n';
    out << "device " << settings.value("device").toString() << '\n';
    out << "type " << settings.value("type").toString() << '\n';
    out << "email " << settings.value("email").toString() << '\n';
    if (settings.value("type").toString() == "AVT")
        out << "report " << settings.value("report").toString() << '\n';
    if (settings.contains("user"))
        out << "user " << settings.value("user").toString() << '\n';
}

QMap<QString, QString> formFields(const QHash<QString, QVariant>& settings) {
    QMap<QString, QString> fields;
    for (const char* key : {"device", "email", "type"})
        fields.insert(key, settings.value(key).toString());
    fields.insert("sn", QString::number(settings.value("sn").toULongLong(), 10));
    if (settings.value("type").toString() == "AVT")
        fields.insert("report", settings.value("report").toString());
    if (settings.contains("user"))
        fields.insert("user", settings.value("user").toString());
    return fields;
}

// config.xml beside the calling application, else in its "../data" folder; empty if neither.
QString findConfiguration(const UploadPaths& paths) {
    // Qt fills its cached application path without a lock; asking once per process keeps
    // uploads on several threads from racing on it. The path does not change while running.
    static const QString applicationFolder = QCoreApplication::applicationDirPath();
    const QDir appDir(applicationFolder);
    debugPrint("Calling application lies in %s", paths.bytes(appDir.absolutePath()).constData());
    if (QFileInfo::exists(appDir.filePath("config.xml")))
        return appDir.filePath("config.xml");
    if (QFileInfo::exists(appDir.filePath("../data/config.xml")))
        return QDir(QDir::cleanPath(appDir.path() + "/../data")).filePath("config.xml");
    return {};
}

} // namespace

bool FileHandler::handleData(const QString& fileOrFolder, QString& writtenFileName,
                             uint32_t& usedLocation) {
    QString packedPath;
    if ((extensions.verifiedDelivery && !_verifySource(fileOrFolder)) ||
        !_packData(fileOrFolder, packedPath) ||
        !progress.report(StagePacking, packingTotal, packingTotal))
        return _stopped();
    if (deliver(packedPath, writtenFileName, usedLocation))
        return true;
    if (progress.cancelled())
        return false;
    // Where the item stays, unless the host asked for it to go with the call.
    if (!extensions.spoolFolder.empty())
        Spool(QString::fromStdString(extensions.spoolFolder)).keep(*this, packedPath, kept);
    if (extensions.verifiedDelivery && !extensions.removePackage && QFileInfo::exists(packedPath))
        error += (error.empty() ? "" : "\n") + ("The packed item stays at " + quoted(packedPath));
    return false;
}

bool FileHandler::deliver(const QString& packedPath, QString& writtenFileName,
                          uint32_t& usedLocation) {
    for (const dataExchangeLocation destination : destinations(location)) {
        if (_performUpload(packedPath, destination)) {
            writtenFileName = QFileInfo(packageName).fileName();
            usedLocation = destination;
            return true;
        }
        if (progress.cancelled())
            return _stopped();
    }
    return false;
}

bool FileHandler::_stopped() {
    if (progress.cancelled())
        error = "Upload cancelled by the host";
    return false;
}

bool FileHandler::_performUpload(const QString& packedPath, const dataExchangeLocation& location) {
    if (location == SharedFolder) {
        ++attempts;
        if (!progress.report(StageSharedFolder, 0, 1))
            return false;
        const QString folder = QStringLiteral(DATAEXCHANGE_SHARED_FOLDER)
                                   .arg(settings.value("device").toString().left(3), dataType);
        if (!QFileInfo::exists(folder)) {
            error = "Shared folder " + quoted(folder) +
                    " does not seem to exist, please check it is correctly mounted";
            return false;
        }
        QFile packed(packedPath);
        if (!packed.open(QIODevice::ReadWrite)) {
            error = "Could not open file " + quoted(packedPath);
            return false;
        }
        packed.close();
        // Named before the move is tried: after a failed move the caller still learns the
        // intended target.
        packageName = QDir(folder).filePath(
            QStringLiteral("%1_%2").arg(timeStamp, QFileInfo(packedPath).fileName()));
        debugPrint("Trying to move %s to %s", packedPath.toUtf8().constData(),
                   packageName.toUtf8().constData());
        if (!QFile::rename(packedPath, packageName)) {
            error = "Cannot move file " + quoted(packedPath) + " to " + quoted(packageName);
            return false;
        }
        QFile info(packageName + ".info");
        if (!info.open(QIODevice::WriteOnly | QIODevice::Text)) {
            error = "Could not create file " + quoted(info.fileName());
            // Without its side file the item would never be processed.
            QFile::remove(packageName);
            return false;
        }
        QTextStream out(&info);
        writeInfo(out, settings);
        out.flush();
        info.close();
        // Delivered: a cancel asked for now comes too late to matter.
        progress.report(StageSharedFolder, 1, 1);
        return true;
    }
    if (location == Server)
        return _deliverToServer(packedPath);
    error = std::string("Unhandled location in ") + DATAEXCHANGE_SIGNATURE;
    return false;
}

bool FileHandler::_deliverToServer(const QString& packedPath) {
    ServerInteractor interactor(formFields(settings), nullptr);
    const QString configPath = findConfiguration(pathMode);
    if (configPath.isEmpty()) {
        error = "Could not find any config.xml file";
        return false;
    }
    debugPrint("Found config file %s", pathMode.bytes(configPath).constData());
    if (!interactor.readConfiguration(configPath)) {
        error.clear();
        error = interactor.lastError();
        if (error.empty())
            error = "Unknown error loading config file " + quoted(configPath);
        return false;
    }
    if (extensions.useConfiguredProxy && !interactor.useConfiguredProxy()) {
        error = interactor.lastError();
        return false;
    }
    const RetryPolicy retry(extensions.retries, extensions.retryDelayMilliseconds);
    std::string attempts;
    for (uint32_t attempt = 1;; ++attempt) {
        if (_sendOnce(interactor, packedPath))
            return true;
        if (progress.cancelled() || !retry.enabled())
            return false;
        const bool again = attempt < retry.attempts() && interactor.failureIsTransient();
        const std::string cause =
            interactor.failureCause().empty() ? interactor.lastError() : interactor.failureCause();
        attempts +=
            (attempts.empty() ? "" : "\n") + ("Attempt " + std::to_string(attempt) + " of " +
                                              std::to_string(retry.attempts()) + ": " + cause);
        if (!again) {
            if (attempt < retry.attempts())
                attempts += interactor.answerLost()
                                ? " (after the whole item went out: the server may have stored "
                                  "it, so it is not sent again)"
                                : " (not a passing fault: not tried again)";
            error = attempts;
            return false;
        }
        if (!RetryPolicy::wait(retry.delayBefore(attempt + 1, interactor.retryAfterSeconds()),
                               progress))
            return false;
    }
}

// One attempt: the upload (unless an earlier attempt stored the item), then the job request.
bool FileHandler::_sendOnce(ServerInteractor& interactor, const QString& packedPath) {
    ++attempts;
    if (!uploadStored) {
        uploadTotal = quint64(QFileInfo(packedPath).size());
        if (!progress.report(StageUpload, 0, uploadTotal))
            return false;
        interactor.setRequestControl(_requestControl(StageUpload));
        QString answer;
        // A failed upload leaves error as it was: the caller then reports its own fall-back.
        // Only a stall timeout or verified delivery, which a host asked for, names its cause.
        const bool uploaded = interactor.uploadFile(packedPath, answer);
        storedName = answer;
        if (!uploaded) {
            if (interactor.stalled() || extensions.verifiedDelivery)
                error = interactor.lastError();
            return false;
        }
        uploadStored = true;
        if (!progress.report(StageUpload, uploadTotal, uploadTotal))
            return false;
    }
    if (!progress.report(StageJobRequest, 0, 1))
        return false;
    interactor.setRequestControl(_requestControl(StageJobRequest));
    if (!interactor.pushJob(storedName)) {
        if (progress.cancelled())
            return false;
        error = interactor.lastError();
        if (error.empty())
            error = "Unknown error in POST request";
        return false;
    }
    progress.report(StageJobRequest, 1, 1);
    return true;
}

RequestControl FileHandler::_requestControl(uint32_t stage) {
    RequestControl control;
    control.stallTimeoutSeconds = extensions.stallTimeoutSeconds;
    control.verified = extensions.verifiedDelivery;
    control.utf8FileName = pathMode.unicode();
    control.retries = extensions.retries > 0;
    control.streaming = extensions.streamingUpload;
    if (!progress.active())
        return control;
    control.progress = [this, stage](quint64 done, quint64 total) {
        if (stage == StageJobRequest)
            return progress.update(stage, 0, 1);
        // Until Qt reports the request body's size, the packed item's size stands in for it.
        if (total == 0)
            total = uploadTotal;
        uploadTotal = total;
        return progress.update(stage, done, total);
    };
    return control;
}

} // namespace measurement::dataExchange
