// The upload export end to end: real folders, a real shared folder under the build's share root,
// and the local processing site. Server cases run a host program copied into a folder of the
// test beside its config.xml, since the library looks for the file beside the application.
#include "ProcessingSite.h"
#include "UploadHost.h"
#include "dataExchange.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstring>

namespace {

const QString shareRoot = QStringLiteral(DX_SHARE_ROOT);
const QString timeStamp = QStringLiteral("\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d_");

QString sharedFolder(const QString& device, const QString& type) {
    return shareRoot + "/measurement/processing/" + device + "/" + type;
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

using dxtest::Outcome;

class Upload : public testing::Test {
protected:
    void SetUp() override {
        handle = dataExchangeInit(nullptr, 0, nullptr);
        data = work.filePath(QStringLiteral("cal7"));
        QDir().mkpath(data);
        writeFile(data + "/a.csv", "1;2\n");
        writeFile(data + QStringLiteral("/Messung_\u00e4\u00f6\u00fc.csv"), "3;4\n");
    }
    void TearDown() override {
        dataExchangeClose(&handle);
        dxtest::clearShareRoot();
    }
    static void writeFile(const QString& path, const QByteArray& content) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    void setOptions(int32_t dataType, uint32_t location) {
        dataExchangeSetInt32Option(handle, "Device type", 0);
        dataExchangeSetInt32Option(handle, "Data type", dataType);
        dataExchangeSetUint32Option(handle, "Location", location);
        dataExchangeSetUint64Option(handle, "Serial number", 255);
    }
    Outcome upload(const QString& path, size_t size = 256) {
        return dxtest::upload(handle, path, size);
    }
    Outcome runHost(const QString& folder, const QStringList& options,
                    const QString& tmp = QString()) {
        return dxtest::runUploadHost(folder, data, options, tmp);
    }

    QTemporaryDir work;
    QString data;
    dataExchangeLibraryImp* handle = nullptr;
};

} // namespace

TEST_F(Upload, ArgumentChecksComeInOrder) {
    char buffer[8];
    uint32_t used = 0;
    EXPECT_EQ(dataExchangeUploadData(nullptr, "x", 8, buffer, &used), InvalidArgument);
    struct Case {
        const char* path;
        size_t size;
        char* buffer;
        int32_t result;
        const char* errors;
    } cases[] = {
        {"", 0, buffer, 1, "Empty file or folder name provided\n"},
        {nullptr, 8, buffer, 1, "Empty file or folder name provided\n"},
        {"C:/nothing", 0, buffer, 1, "Empty writtenFileName string provided\n"},
        {"C:/nothing", 0, nullptr, 10, "File or folder C:/nothing does not exist\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dataExchangeUploadData(handle, c.path, c.size, c.buffer, &used), c.result);
        char errors[256] = "";
        dataExchangeGetLastErrors(handle, sizeof errors, errors);
        EXPECT_STREQ(errors, c.errors);
    }
    const Outcome unset = upload(data);
    EXPECT_EQ(unset.result, HandlerConfigurationFailed);
    EXPECT_EQ(unset.errors, "Unhandled value for 'Data type'\n\n");
}

TEST_F(Upload, SharedFolderGetsItemAndInfo) {
    struct Case {
        int32_t dataType;
        const char* folder;
        const char* info;
    } cases[] = {
        {Precalibration, "precalibration",
         "sn 0xff\ndevice cvX5\ntype precalibration\nemail \nuser nick\n"},
        {Datalogger, "datalogger", "sn 0xff\ndevice cvX5\ntype hex\nemail \nuser nick\n"},
        {Avt, "AVT", "sn 0xff\ndevice cvX5\ntype AVT\nemail \nreport yes\nuser nick\n"},
    };
    for (const Case& c : cases) {
        setOptions(c.dataType, SharedFolder);
        dataExchangeSetStringOption(handle, "User", "nick");
        ASSERT_TRUE(QDir().mkpath(sharedFolder("cvX", c.folder)));
        const Outcome outcome = upload(data + "/");
        ASSERT_EQ(outcome.result, Success) << outcome.errors.toStdString();
        EXPECT_EQ(outcome.location, 1u);
        EXPECT_TRUE(outcome.name.contains(QRegularExpression(
            "^" + timeStamp + QString(c.folder == QString("AVT") ? "AVT" : c.folder) +
            "_cal7\\.zip$")))
            << outcome.name.toStdString();
        const QString delivered = sharedFolder("cvX", c.folder) + "/" + outcome.name;
        EXPECT_TRUE(QFileInfo(delivered).isFile());
        EXPECT_EQ(readAll(delivered + ".info"), QByteArray(c.info));
    }
}

TEST_F(Upload, WrittenNameBufferAndMissingShare) {
    setOptions(LogFile, SharedFolder);
    const QString file = data + "/a.csv";
    const Outcome missing = upload(file);
    EXPECT_EQ(missing.result, DataHandlingFailed);
    EXPECT_EQ(missing.errors, "Shared folder '" + sharedFolder("cvX", "logFile") +
                                  "' does not seem to exist, please check it is correctly "
                                  "mounted\n");
    ASSERT_TRUE(QDir().mkpath(sharedFolder("cvX", "logFile")));
    const size_t nameLength = 20 + QString("logFile_a.csv").size();
    const Outcome cut = upload(file, nameLength);
    EXPECT_EQ(cut.result, BufferTooSmall);
    EXPECT_EQ(cut.location, 1u);
    EXPECT_EQ(cut.errors, "Written file name is too long for allocated buffer\n");
    EXPECT_TRUE(cut.name.endsWith("_logFile_a.csv")) << cut.name.toStdString();
    EXPECT_EQ(size_t(cut.name.size()), nameLength);
}

TEST_F(Upload, ServerRoute) {
    dxtest::ProcessingSite site;
    ASSERT_TRUE(site.isRunning());
    QTemporaryDir app, tmp;
    dxtest::writeServerConfig(app.path(), site.host(), "http");
    const Outcome outcome =
        runHost(app.path(), {"dev=2", "dt=1", "loc=2", "sn=4711", "user=nick"}, tmp.path());
    ASSERT_EQ(outcome.result, Success) << outcome.errors.toStdString();
    EXPECT_EQ(outcome.name, "cmm_cal7.zip");
    EXPECT_EQ(outcome.location, 2u);
    ASSERT_EQ(site.jobs().size(), 1u);
    const QJsonArray fields = site.jobs()[0].value("fields").toArray();
    QStringList names;
    for (const auto& field : fields)
        names << field.toArray()[0].toString() + "=" + field.toArray()[1].toString();
    EXPECT_EQ(names, QStringList({"device=lmM1", "email=", "sn=4711", "type=cmm", "user=nick",
                                  "file=cmm_cal7.zip"}));
    EXPECT_TRUE(QFileInfo(site.storedFile("cmm_cal7.zip")).isFile());
    // The packed item stayed in the temporary folder until the host unloaded the library.
    EXPECT_TRUE(QDir(tmp.path()).isEmpty());
}

TEST_F(Upload, SharedFolderFirstThenServer) {
    dxtest::ProcessingSite site;
    QTemporaryDir app;
    dxtest::writeServerConfig(app.path(), site.host(), "http");
    const Outcome outcome = runHost(app.path(), {"dev=0", "dt=0", "loc=3"});
    EXPECT_EQ(outcome.result, Success);
    EXPECT_EQ(outcome.location, 2u);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(site.uploads().size(), 1u);
}

// Which config.xml is used, and what each server-side failure reports.
TEST_F(Upload, ServerFailures) {
    dxtest::ProcessingSite site, failingJob({"--status", "job=500"});
    const QString dead = "127.0.0.1:1";
    struct Case {
        const char* what;
        QString beside, data; // config Names; empty: no file there
        QString errors;
    } cases[] = {
        {"data folder is used", "", site.host(), ""},
        {"beside wins", site.host(), dead, ""},
        {"no config", "", "", "Could not find any config.xml file"},
        {"server down: silent upload failure", dead, "", "Unknown error handling data"},
        {"job refused", failingJob.host(), "",
         "Error transferring http://" + failingJob.host() +
             "/pushJob.php - server replied: Internal Server Error"},
    };
    for (const Case& c : cases) {
        QTemporaryDir root;
        const QString app = root.filePath("bin");
        QDir().mkpath(app);
        QDir().mkpath(root.filePath("data"));
        if (!c.beside.isEmpty())
            dxtest::writeServerConfig(app, c.beside, "http");
        if (!c.data.isEmpty())
            dxtest::writeServerConfig(root.filePath("data"), c.data, "http");
        const Outcome outcome = runHost(app, {"dev=0", "dt=0", "loc=2"});
        EXPECT_EQ(outcome.result, c.errors.isEmpty() ? Success : DataHandlingFailed) << c.what;
        EXPECT_EQ(outcome.errors.toStdString(),
                  (c.errors.isEmpty() ? "" : c.errors + "\n").toStdString())
            << c.what;
    }
    QTemporaryDir app;
    QFile config(app.filePath("config.xml"));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write("<Configuration><Server><Name>x</Name><Protocol>http</Protocol></Server>"
                 "</Configuration>");
    config.close();
    EXPECT_EQ(runHost(app.path(), {"dev=0", "dt=0", "loc=2"}).errors.toStdString(),
              "Missing /Configuration/Server/Port information in fileMissing "
              "/Configuration/Server/Timeout information in file\n");
}
