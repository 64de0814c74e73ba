// FileHandler configuration from a handle's options, and packing of real files and folders,
// each archive read back with Python's zipfile and Info-ZIP's unzip.
#include "transfer/FileHandler.h"
#include "api/dataExchangeLibraryImp.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace measurement::dataExchange {
struct FileHandlerProbe {
    static bool pack(FileHandler& handler, const QString& source, QString& packed) {
        return handler._packData(source, packed);
    }
};
} // namespace measurement::dataExchange

using namespace measurement::dataExchange;

namespace {

struct Handle {
    Handle() : h(dataExchangeInit(nullptr, 0, nullptr)) {}
    ~Handle() { dataExchangeClose(&h); }
    dataExchangeLibraryImp* h;
};

void writeFile(const QString& path, const QByteArray& data) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(data);
}

// Entry name → {method, utf8 flag, hex data}, read by Python's zipfile.
QJsonObject readArchive(const QString& path) {
    QProcess python;
    python.start(DX_PYTHON, {DX_SOURCE_DIR "/tests/support/zipinfo.py", path});
    python.waitForFinished();
    const QJsonObject info = QJsonDocument::fromJson(python.readAllStandardOutput()).object();
    EXPECT_TRUE(info.value("bad").isNull()) << path.toStdString();
    // Info-ZIP warns (status 1) about an archive without entries.
    const int unzip = QProcess::execute("unzip", {"-tqq", path});
    EXPECT_EQ(unzip, info.value("entries").toArray().isEmpty() ? 1 : 0) << path.toStdString();
    QJsonObject byName;
    for (const auto& entry : info.value("entries").toArray())
        byName.insert(entry.toObject().value("name").toString(), entry);
    return byName;
}

class Packing : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(work.isValid());
        handler.dataType = "precalibration";
    }
    QString makeFolder(const QString& name) {
        QDir(work.path()).mkpath(name);
        return work.filePath(name);
    }
    QTemporaryDir work;
    FileHandler handler;
    QString packed;
};

} // namespace

TEST(Configure, SettingsPerDataType) {
    struct Case {
        int32_t dataType;
        uint32_t report;
        const char* user;
        QString type, reportValue; // reportValue empty: no "report" key
    } cases[] = {
        {Datalogger, 1, "", "hex", ""},
        {Avt, 0, "nick", "AVT", "no"},
        {Avt, 1, "", "AVT", "yes"},
        {LogFile, 1, "nick", "logFile", ""},
    };
    for (const Case& c : cases) {
        Handle handle;
        dataExchangeSetInt32Option(handle.h, "Data type", c.dataType);
        dataExchangeSetInt32Option(handle.h, "Device type", 3);
        dataExchangeSetUint32Option(handle.h, "Report", c.report);
        dataExchangeSetUint32Option(handle.h, "Location", 2);
        dataExchangeSetUint64Option(handle.h, "Serial number", 255);
        dataExchangeSetStringOption(handle.h, "User", c.user);
        FileHandler handler;
        ASSERT_TRUE(handler.configure(handle.h)) << c.dataType;
        const auto& s = handler.settings;
        EXPECT_EQ(s.value("type").toString(), c.type);
        EXPECT_EQ(s.value("device").toString(), "lmM3");
        EXPECT_EQ(s.value("sn").toULongLong(), 255u);
        EXPECT_TRUE(s.contains("email") && s.value("email").toString().isEmpty());
        EXPECT_EQ(s.contains("report"), !c.reportValue.isEmpty()) << c.dataType;
        EXPECT_EQ(s.value("report").toString(), c.reportValue);
        EXPECT_EQ(s.contains("user"), *c.user != '\0');
        EXPECT_EQ(handler.location, 2u);
        EXPECT_TRUE(QDateTime::fromString(handler.timeStamp, "yyyy-MM-dd_hh-mm-ss").isValid());
    }
}

TEST(Configure, UnconvertibleTypesFail) {
    struct Case {
        int32_t dataType, deviceType;
        const char* error;
    } cases[] = {{-1, -1, "Unhandled value for 'Data type'\n"},
                 {Cmm, -1, "Unhandled value for 'Device type'\n"}};
    for (const Case& c : cases) {
        Handle handle;
        if (c.dataType >= 0)
            dataExchangeSetInt32Option(handle.h, "Data type", c.dataType);
        FileHandler handler;
        EXPECT_FALSE(handler.configure(handle.h));
        EXPECT_EQ(handler.error, c.error);
        EXPECT_TRUE(handle.h->errors.empty());
    }
}

TEST_F(Packing, FolderBecomesArchiveOfItsTopLevelFiles) {
    const QString folder = makeFolder(QStringLiteral("Kalibrierung_\u00d85"));
    const QByteArray csv = "x;y\n1;2\n";
    writeFile(folder + QStringLiteral("/Messung_\u00e4\u00f6\u00fc_\u20ac.csv"), csv);
    writeFile(folder + "/empty.bin", "");
    writeFile(folder + "/.hidden", "secret");
    // The same archive whatever form the path takes.
    const QString forms[] = {folder, folder + "/", QDir::current().relativeFilePath(folder)};
    for (const QString& form : forms) {
        ASSERT_TRUE(FileHandlerProbe::pack(handler, form, packed)) << form.toStdString();
        EXPECT_EQ(handler.sourceName, QStringLiteral("Kalibrierung_\u00d85"));
        EXPECT_EQ(QFileInfo(packed).fileName(),
                  QStringLiteral("precalibration_Kalibrierung_\u00d85.zip"));
        const QJsonObject entries = readArchive(packed);
        EXPECT_EQ(entries.keys(),
                  QStringList({"Messung_\u00e4\u00f6\u00fc_\u20ac.csv", "empty.bin"}));
        for (const auto& entry : entries) {
            EXPECT_EQ(entry.toObject().value("method").toInt(), 8);
            EXPECT_TRUE(entry.toObject().value("utf8").toBool());
        }
        EXPECT_EQ(entries.value(QStringLiteral("Messung_\u00e4\u00f6\u00fc_\u20ac.csv"))
                      .toObject()
                      .value("data")
                      .toString(),
                  QString(csv.toHex()));
    }
}

TEST_F(Packing, EmptyFolderAndRepeatedPacks) {
    const QString folder = makeFolder("cal7");
    QString first;
    ASSERT_TRUE(FileHandlerProbe::pack(handler, folder, first));
    ASSERT_TRUE(FileHandlerProbe::pack(handler, folder, packed));
    EXPECT_TRUE(readArchive(packed).isEmpty());
    EXPECT_EQ(QFileInfo(first).fileName(), QFileInfo(packed).fileName());
    EXPECT_NE(QFileInfo(first).path(), QFileInfo(packed).path());
    EXPECT_TRUE(QFileInfo::exists(first));
}

TEST_F(Packing, SubFolderRefusesTheWholeFolder) {
    const QString folder = makeFolder("run/inner");
    writeFile(work.filePath("run/a.txt"), "a");
    EXPECT_FALSE(FileHandlerProbe::pack(handler, work.filePath("run"), packed));
    EXPECT_EQ(handler.error, "Subdirectory 'inner' contents will be skipped");
    EXPECT_TRUE(QFileInfo::exists(packed)); // the partial archive is left behind
}

TEST_F(Packing, SingleFileIsCopiedAsItIs) {
    QByteArray data;
    for (int n = 0; n < 100000; ++n)
        data.append(char(n * 7));
    writeFile(work.filePath("run.bin"), data);
    handler.dataType = "datalogger";
    ASSERT_TRUE(FileHandlerProbe::pack(handler, work.filePath("run.bin"), packed));
    EXPECT_EQ(QFileInfo(packed).fileName(), "datalogger_run.bin");
    EXPECT_TRUE(QFileInfo(packed).isAbsolute());
    QFile copy(packed);
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
    EXPECT_EQ(copy.readAll(), data);
    EXPECT_FALSE(FileHandlerProbe::pack(handler, work.filePath("gone.bin"), packed));
    EXPECT_EQ(handler.error, "");
}
