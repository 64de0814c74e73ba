// Packing real files and folders, each archive read back with Python's zipfile and Info-ZIP's
// unzip. What packing leads to at the boundary (names, delivery, .info, an empty folder, a folder
// with a sub-folder) is tested in tests/api.
#include "transfer/FileHandler.h"
#include "LogSink.h"
#include "UploadFixture.h"
#include "transfer/ZipVersionNeeded.h"

#include <QDir>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <csignal>
#include <quazip/quazip.h>
#include <quazip/quazipfile.h>
#include <sys/resource.h>

namespace measurement::dataExchange {
struct FileHandlerProbe {
    static bool pack(FileHandler& handler, const QString& source, QString& packed) {
        return handler._packData(source, packed);
    }
};
} // namespace measurement::dataExchange

using namespace measurement::dataExchange;

namespace {

class Packing : public testing::Test {
protected:
    void SetUp() override { handler.dataType = "precalibration"; }
    bool pack(const QString& source) { return FileHandlerProbe::pack(handler, source, packed); }
    // "name method utf8-flag hex-data" by name; both readers must find every entry sound.
    QStringList entries() {
        const QJsonObject zip = dxtest::readZip(packed);
        const QJsonArray all = zip["entries"].toArray();
        EXPECT_TRUE(zip["bad"].isNull());
        EXPECT_EQ(QProcess::execute("unzip", {"-tqq", packed}), all.isEmpty()); // 1: a warning
        QStringList lines;
        for (const auto& e : all)
            lines << QString("%1 %2 %3 %4")
                         .arg(e["name"].toString())
                         .arg(e["method"].toInt())
                         .arg(e["utf8"].toBool())
                         .arg(e["data"].toString());
        lines.sort();
        return lines;
    }
    QTemporaryDir work;
    FileHandler handler;
    QString packed;
};

} // namespace

// Only the folder's readable top-level files, deflated; names flagged as UTF-8 only when one is
// not ASCII; the same archive whatever form the path takes. Each pack has a folder of its own: the
// archive of an earlier upload stays as it is.
TEST_F(Packing, FolderBecomesArchiveOfItsFiles) {
    const QString umlauts = QStringLiteral("Messung_\u00e4\u00f6\u00fc_\u20ac.csv");
    const QString folder = work.filePath(QStringLiteral("Kalibrierung_\u00d85"));
    ASSERT_TRUE(dxtest::writeFile(folder + "/" + umlauts, "x;y\n") &&
                dxtest::writeFile(folder + "/empty.bin", "") &&
                dxtest::writeFile(folder + "/.hidden", "secret") &&
                dxtest::writeFile(work.filePath("ascii/a.csv"), "1"));
    const QString forms[] = {folder, folder + "/", QDir::current().relativeFilePath(folder)};
    QString earlier;
    for (const QString& form : forms) {
        ASSERT_TRUE(pack(form)) << form.toStdString();
        EXPECT_TRUE(earlier.isEmpty() || (QFileInfo::exists(earlier) &&
                                          QFileInfo(earlier).path() != QFileInfo(packed).path()));
        earlier = packed;
        EXPECT_EQ(QFileInfo(packed).fileName(),
                  QStringLiteral("precalibration_Kalibrierung_\u00d85.zip"));
        EXPECT_TRUE(QFileInfo(packed).isAbsolute());
        EXPECT_EQ(entries(), QStringList({umlauts + " 8 1 783b790a", "empty.bin 8 1 "}));
    }
    ASSERT_TRUE(pack(work.filePath("ascii")));
    EXPECT_EQ(entries(), QStringList{"a.csv 8 0 31"});
}

TEST_F(Packing, SingleFileIsCopiedAsItIs) {
    QByteArray data;
    for (int n = 0; n < 100000; ++n)
        data.append(char(n * 7));
    ASSERT_TRUE(dxtest::writeFile(work.filePath("run.bin"), data) &&
                QFile::setPermissions(work.filePath("run.bin"),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
    handler.dataType = "datalogger";
    ASSERT_TRUE(pack(work.filePath("run.bin")));
    EXPECT_EQ(QFileInfo(packed).fileName(), "datalogger_run.bin");
    EXPECT_TRUE(QFileInfo(packed).isAbsolute());
    EXPECT_EQ(dxtest::readFile(packed), data);
    EXPECT_EQ(QFileInfo(packed).permissions(), QFileInfo(work.filePath("run.bin")).permissions());
    EXPECT_FALSE(pack(work.filePath("gone.bin")));
    EXPECT_EQ(handler.error, "");
}

namespace {

QByteArray mixedBytes(int size, int seed) { // runs of text between noise
    QByteArray bytes;
    for (quint32 state = quint32(seed) + 1; bytes.size() < size;) {
        state = state * 1103515245u + 12345u;
        bytes += (state >> 28) < 6 ? QByteArray::number(state % 1000).repeated(40)
                                   : QByteArray::number(state, 36);
    }
    bytes.resize(size);
    return bytes;
}

int32_t DATAEXCHANGE_CALL cancelSecond(uint32_t, uint64_t, uint64_t, void* calls) {
    return ++*static_cast<int*>(calls) == 2;
}

} // namespace

// Several threads write one thread's archive byte for byte, whatever they are; a file too big to
// share the work is split into blocks, and every reader, QuaZip's too, gets its bytes back.
TEST_F(Packing, OnSeveralThreads) {
    const QString mixed = work.filePath("mixed"), recording = work.filePath("recording");
    for (int n = 0; n < 30; ++n)
        ASSERT_TRUE(dxtest::writeFile(mixed + QString("/m%1_\u00e4.csv").arg(n),
                                      mixedBytes(n % 10 ? n * 3000 : 0, n)));
    ASSERT_TRUE(dxtest::writeFile(mixed + "/large.bin", mixedBytes(9 << 20, 99)) &&
                dxtest::writeFile(mixed + "/noise.dat", dxtest::randomBytes(300000)));
    const QByteArray big = mixedBytes(70 << 20, 7);
    ASSERT_TRUE(dxtest::writeFile(recording + "/run.bin", big) &&
                dxtest::writeFile(recording + "/run.txt", "x"));
    dataExchangeLibraryImp::Extensions extensions;
    const auto packOn = [&](uint32_t threads, const QString& folder) {
        extensions.packingThreads = threads;
        handler.useExtensions(extensions);
        return pack(folder) ? dxtest::readFile(packed) : QByteArray();
    };
    // level, storing what does not shrink, the entries stored; a chosen level 6 is the default.
    const struct {
        int level;
        bool store;
        int stored;
    } compressions[] = {{-1, false, 0}, {6, false, 0}, {1, false, 0},
                        {9, false, 0},  {6, true, 1},  {0, false, 32}};
    QList<QByteArray> archives;
    for (const auto& c : compressions) {
        extensions.compressionLevel = c.level;
        extensions.storeIncompressible = c.store;
        archives << packOn(1, mixed);
        for (uint32_t threads : {2u, 3u, 0u})
            EXPECT_TRUE(packOn(threads, mixed) == archives.back()) << threads << " " << c.level;
        EXPECT_EQ(entries().filter(QRegularExpression("^\\S+ 0 ")).size(), c.stored) << c.level;
    }
    EXPECT_TRUE(archives[0] == archives[1]);
    EXPECT_GT(archives[2].size(), archives[3].size() + 1000);
    extensions.compressionLevel = -1;
    extensions.storeIncompressible = false;
    ASSERT_FALSE(packOn(2, recording).isEmpty());
    EXPECT_EQ(entries().size(), 2);
    QuaZipFile entry(packed, "run.bin");
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    EXPECT_TRUE(entry.readAll() == big);
    int calls = 0; // a cancel stops the workers and takes what they wrote
    extensions.progress = cancelSecond;
    extensions.progressContext = &calls;
    EXPECT_TRUE(packOn(2, recording).isEmpty());
    EXPECT_EQ(calls, 2);
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(packed).path()));
}

// QuaZip's 6.3 for an entry with a UTF-8 name becomes what the entry needs: 4.5 with zip64
// fields, 2.0 deflated, 1.0 stored; an entry without the flag keeps it.
TEST_F(Packing, VersionNeededOfUtf8Names) {
    const struct {
        const char* name;
        int method;
        QByteArray extra;
        quint16 needed;
    } rows[] = {{"zip64_\u00e4", 8, QByteArray("\1\0\10\0\0\0\0\0\0\0\0\0", 12), 45},
                {"deflated_\u00e4", 8, {}, 20},
                {"stored_\u00e4", 0, {}, 10},
                {"unflagged", 8, {}, 63}};
    const QString path = work.filePath("v.zip");
    QuaZip zip(path);
    zip.setUtf8Enabled(true);
    ASSERT_TRUE(zip.open(QuaZip::mdCreate));
    for (const auto& row : rows) {
        QuaZipNewInfo info(QString::fromUtf8(row.name));
        info.extraGlobal = row.extra;
        QuaZipFile entry(&zip);
        ASSERT_TRUE(entry.open(QIODevice::WriteOnly, info, nullptr, 0, row.method));
        entry.write("x");
    }
    zip.close();
    QByteArray bytes = dxtest::readFile(path);
    QList<int> central; // as QuaZip writes a zip64 entry: 6.3, the last one without the flag
    for (int at = 0; (at = bytes.indexOf("PK\1\2", at)) >= 0; at += 4)
        central << at;
    ASSERT_EQ(central.size(), 4);
    for (int at : central)
        bytes[at + 6] = 63;
    bytes[central.back() + 9] = 0;
    ASSERT_TRUE(dxtest::writeFile(path, bytes) && lowerVersionNeeded(path));
    bytes = dxtest::readFile(path);
    for (int n = 0; n < 4; ++n)
        EXPECT_EQ(quint8(bytes[central[n] + 6]), rows[n].needed) << rows[n].name;
}

// A full disk on several threads fails as on one, and leaves nothing behind.
TEST_F(Packing, DiskFullOnSeveralThreads) {
    ASSERT_TRUE(dxtest::writeFile(work.filePath("data/a.bin"), mixedBytes(3 << 20, 1)) &&
                dxtest::writeFile(work.filePath("data/b.bin"), mixedBytes(3 << 20, 2)));
    static QStringList warnings;
    const dataExchangeLogCallback logWarning = [](uint32_t level, const char* line, void*) {
        warnings << QString::number(level) + " " + line;
    };
    qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { warnings << text; });
    rlimit limit{}, small{};
    getrlimit(RLIMIT_FSIZE, &limit);
    small = {256 << 10, limit.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    dataExchangeLibraryImp::Extensions extensions;
    for (uint32_t threads : {1u, 2u}) {
        // On two threads the host's log callback takes the warnings instead of Qt's channel.
        measurement::LogSink::set(threads == 1 ? nullptr : logWarning, nullptr);
        extensions.packingThreads = threads;
        handler.useExtensions(extensions);
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_FALSE(pack(work.filePath("data")));
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(handler.error, "");
    }
    qInstallMessageHandler(nullptr);
    measurement::LogSink::set(nullptr, nullptr);
    // Which file a full disk shows in depends on when zip buffers are flushed.
    for (const char* warning :
         {"^Couldn't write to .*_data\\.zip$", "^1 Couldn't write to .*_data\\.zip$"})
        EXPECT_EQ(warnings.filter(QRegularExpression(warning)).size(), 1) << warning;
    EXPECT_FALSE(QFileInfo::exists(packed) || QFileInfo::exists(QFileInfo(packed).path()));
}
