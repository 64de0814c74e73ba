#include "transfer/FileHandler.h"

#include "System.h"
#include "UnicodePaths.h"
#include "api/dataExchangeLibraryImp.h"
#include "options/OptionCatalogue.h"
#include "transfer/ParallelPacker.h"
#include "transfer/ZipVersionNeeded.h"
#include "transfer/ZipWarning.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <quazip/quazip.h>
#include <quazip/quazipfile.h>
#include <quazip/quazipnewinfo.h>

namespace measurement::dataExchange {

namespace {

constexpr const char* timeStampFormat = "yyyy-MM-dd_hh-mm-ss";
// Readable files and sub-folders, hidden entries and "." and ".." left out.
constexpr QDir::Filters listing = QDir::Dirs | QDir::Files | QDir::Readable | QDir::NoDotAndDotDot;

// Bytes that packing will read: the file, or the files at the folder's top level.
quint64 sourceBytes(const QString& source) {
    const QFileInfo info(source);
    if (!info.isDir())
        return quint64(qMax<qint64>(info.size(), 0));
    quint64 total = 0;
    for (const QFileInfo& entry : QDir(source).entryInfoList(listing, QDir::NoSort))
        if (entry.isFile())
            total += quint64(entry.size());
    return total;
}

// The handle's messages (each followed by a line feed) become the handler's error.
std::string takeHandleErrors(dataExchangeLibraryImp& handle, const char* fallback) {
    std::string text;
    if (!handle.takeErrors(text))
        text = fallback;
    return text;
}

std::string quoted(const QString& text) {
    return "'" + text.toStdString() + "'";
}

// Only a folder's own files are sent: a folder with sub-folders is refused as a whole.
std::string subFolderRefused(const QString& name) {
    return "Subdirectory '" + name.toStdString() + "' contents will be skipped";
}

bool hasNonAsciiName(const QString& folder) {
    for (const QString& name : QDir(folder).entryList(listing, QDir::NoSort))
        for (const QChar c : name)
            if (c.unicode() > 0x7f)
                return true;
    return false;
}

} // namespace

FileHandler::FileHandler(QObject* parent) : QObject(parent) {}

void FileHandler::useExtensions(const dataExchangeLibraryImp::Extensions& settings) {
    extensions = settings;
    pathMode = UploadPaths(settings.unicodePaths);
    progress = ProgressReporter(settings.progress, settings.progressContext);
}

bool FileHandler::configure(dataExchangeLibraryImp* handle) {
    timeStamp = QDateTime::currentDateTime().toString(timeStampFormat);
    std::string tag;
    if (dataTypeTag(*handle, tag) != dataExchangeLibraryImp::Ok) {
        error = takeHandleErrors(*handle, "Unknown error getting 'Data type' option string");
        return false;
    }
    dataType = QString::fromStdString(tag);
    location = loadLocation(handle);
    const uint64_t serial = loadSerialNumber(handle);
    const auto report = static_cast<int32_t>(loadReport(handle));
    const std::string email = loadEmailAddress(handle);
    const std::string user = loadUserName(handle);
    std::string device;
    if (deviceTypeCode(*handle, device) != dataExchangeLibraryImp::Ok) {
        error = takeHandleErrors(*handle, "Unknown error getting 'Device type' option string");
        return false;
    }
    settings.insert("sn", QVariant::fromValue<quint64>(serial));
    settings.insert("device", QString::fromStdString(device));
    // The processing site files data-logger recordings under the type "hex".
    settings.insert("type", dataType == "datalogger" ? QStringLiteral("hex") : dataType);
    settings.insert("email", QString::fromStdString(email));
    // Only AVT data offer a report.
    if (dataType == "AVT")
        settings.insert("report", report == 1 ? QStringLiteral("yes") : QStringLiteral("no"));
    if (!user.empty())
        settings.insert("user", QString::fromStdString(user));
    return true;
}

// Plain packing sends an empty folder as an empty archive and leaves out files it cannot read;
// verified delivery refuses both before anything is packed.
bool FileHandler::_verifySource(const QString& source) {
    const QFileInfo info(source);
    const QFileInfoList files =
        info.isDir() ? QDir(source).entryInfoList(QDir::Files | QDir::Hidden | QDir::System)
                     : QFileInfoList{info};
    if (files.isEmpty()) {
        error = "Folder " + quoted(source) + " holds no files: nothing was sent";
        return false;
    }
    for (const QFileInfo& file : files) {
        QFile readable(file.filePath());
        if (!readable.open(QIODevice::ReadOnly)) {
            error = "File " + quoted(file.filePath()) + " cannot be read: nothing was sent";
            return false;
        }
    }
    return true;
}

bool FileHandler::_packData(const QString& source, QString& packedPath) {
    if (progress.active()) {
        packingTotal = sourceBytes(source);
        if (!progress.report(StagePacking, 0, packingTotal))
            return false;
    }
    const std::string folder = pathMode.makeTemporaryFolder();
    if (folder.empty()) {
        error = "Could not create temporary directory";
        return false;
    }
    temporaryFolder = folder;
    // A temporary folder under a user name outside UTF-8 (the ANSI one of "Jörg") cannot be read
    // back as UTF-8 below; verified delivery says so rather than fail on a mangled name.
    const size_t notUtf8 = UnicodePaths::invalidUtf8Offset(folder);
    if (extensions.verifiedDelivery && !pathMode.unicode() && notUtf8 != std::string::npos) {
        error = UploadPaths::needsUnicode("Temporary folder", folder, notUtf8);
        return false;
    }
    packedPath = QString::fromStdString(folder);
    const QFileInfo info(source);
    if (info.isDir())
        return _zipFolder(source, packedPath);
    if (!info.isFile())
        return false;
    sourceName = info.fileName();
    packageName = QStringLiteral("%1_%2").arg(dataType, sourceName);
    packedPath = QDir(packedPath).absoluteFilePath(packageName);
    QFile file(source, this);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    // The kernel's copy where there is one: QFile::copy also flushes the copy to the disk, which
    // a temporary copy does not need and which takes most of its time.
    if (System::copyFile(QFile::encodeName(source), QFile::encodeName(packedPath)) ||
        file.copy(packedPath))
        return true;
    file.close();
    return false;
}

bool FileHandler::_zipFolder(const QString& folder, QString& packedPath) {
    sourceName = QDir(folder).dirName();
    packageName = QStringLiteral("%1_%2.zip").arg(dataType, sourceName);
    packedPath = QDir(packedPath).absoluteFilePath(packageName);
    const QByteArray archiveName = pathMode.bytes(packedPath);
    QFile zipFile(packedPath, this);
    if (!zipFile.open(QIODevice::WriteOnly))
        return false;
    // QuaZip's defaults add zip64 records on demand, so archives over 4 GiB and folders of more
    // than 65,535 files stay readable; keep them. Names are flagged as UTF-8 when one of them is
    // not ASCII, so that other readers show it as it is; only then, since with the flag QuaZip
    // marks a zip64 entry as needing version 6.3, which Info-ZIP's unzip refuses (lowered below
    // when the host chose a compression).
    QuaZip zip(&zipFile);
    zip.setUtf8Enabled(hasNonAsciiName(folder));
    if (!zip.open(QuaZip::mdCreate, nullptr)) {
        error = "Cannot create zip file " + quoted(packedPath);
        return false;
    }
    const QDir dir(folder);
    const QStringList names = dir.entryList(listing, QDir::NoSort);
    const Compression compression = _compression();
    const unsigned threads = ParallelPacker::threadsFor(extensions.packingThreads);
    const bool packed =
        threads > 1 ? _zipInParallel(zip, zipFile, ParallelPacker(dir, names, threads, compression),
                                     archiveName)
                    : _zipOnThisThread(zip, zipFile, dir, names, compression, archiveName);
    if (!packed || !compression.chosen() || !zip.isUtf8Enabled())
        return packed;
    // Only a host that chose the compression gets the field lowered: by default the archive
    // stays what it always was, byte for byte.
    if (lowerVersionNeeded(packedPath))
        return true;
    zipWarning("Couldn't write %s", archiveName.constData());
    return false;
}

Compression FileHandler::_compression() const {
    Compression compression;
    compression.level = extensions.compressionLevel;
    compression.storeIncompressible = extensions.storeIncompressible;
    return compression;
}

bool FileHandler::_zipOnThisThread(QuaZip& zip, QFile& zipFile, const QDir& dir,
                                   const QStringList& names, const Compression& compression,
                                   const QByteArray& archiveName) {
    std::unique_ptr<DeflateStream> judge;
    if (compression.judgesFiles())
        judge = std::make_unique<DeflateStream>(compression.level);
    std::vector<char> buffer(64 * 1024);
    quint64 packed = 0;
    for (const QString& name : names) {
        QuaZipFile entry(&zip);
        const QString filePath = dir.filePath(name);
        const bool isFolder = QFileInfo(filePath).isDir();
        const QByteArray utf8Name = name.toUtf8();
        const QByteArray utf8Path = filePath.toUtf8();
        QFile input(filePath);
        // A judged file's first bytes are read before its entry opens: they decide its method.
        QByteArray sample;
        if (judge && !isFolder) {
            if (!input.open(QIODevice::ReadOnly)) {
                zipWarning("Couldn't open %s", utf8Path.constData());
                return false;
            }
            sample = input.read(Compression::sampleSize);
        }
        const bool stored = !isFolder && compression.stores(judge ? &judge->stream : nullptr,
                                                            sample.constData(), sample.size());
        zip.setZip64Enabled(compression.localZip64(QFileInfo(filePath).size()));
        if (!entry.open(QIODevice::WriteOnly, QuaZipNewInfo(name, filePath), nullptr, 0,
                        isFolder ? 0 : compression.method(stored), compression.entryLevel(stored),
                        false, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY)) {
            zipWarning("Couldn't open %s in %s", utf8Name.constData(), archiveName.constData());
            return false;
        }
        if (isFolder) {
            error = subFolderRefused(name);
            return false;
        }
        debugPrint("Adding file %s", utf8Name.constData());
        if (!input.isOpen() && !input.open(QIODevice::ReadOnly)) {
            zipWarning("Couldn't open %s", utf8Path.constData());
            return false;
        }
        const auto write = [&](const char* data, qint64 size) {
            if (entry.write(data, size) < size) {
                zipWarning("Couldn't write to %s in %s", utf8Path.constData(),
                           archiveName.constData());
                return false;
            }
            packed += quint64(size);
            return progress.update(StagePacking, packed, packingTotal);
        };
        if (!sample.isEmpty() && !write(sample.constData(), sample.size()))
            return false;
        while (!input.atEnd()) {
            const qint64 read = input.read(buffer.data(), qint64(buffer.size()));
            if (read <= 0) {
                zipWarning("Couldn't read %s", utf8Path.constData());
                return false;
            }
            if (!write(buffer.data(), read))
                return false;
        }
        input.close();
        entry.close();
    }
    zip.close();
    zipFile.close();
    return QFileInfo::exists(pathMode.fromBytes(archiveName));
}

// Unlike one thread, which leaves what it wrote, a failed or cancelled pack on several threads
// takes the half-written archive and its folder with it.
bool FileHandler::_zipInParallel(QuaZip& zip, QFile& zipFile, ParallelPacker&& packer,
                                 const QByteArray& archiveName) {
    bool packed = packer.pack(zip, zipFile.fileName(), archiveName, progress, packingTotal);
    zip.close();
    zipFile.close();
    if (packed && zip.getZipError() != ZIP_OK) {
        zipWarning("Couldn't write %s", zipFile.fileName().toUtf8().constData());
        packed = false;
    }
    if (packed)
        return true;
    if (!packer.refusedFolder.isEmpty())
        error = subFolderRefused(packer.refusedFolder);
    zipFile.remove();
    pathMode.removeFolder(temporaryFolder);
    temporaryFolder.clear();
    return false;
}

} // namespace measurement::dataExchange
