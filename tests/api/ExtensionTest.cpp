// The opt-in extensions through the C ABI: progress and cancel, stall timeout, package removal
// and the configured proxy (a real tinyproxy on loopback). Server cases run the upload host
// from a folder beside its config.xml.
#include "ProcessingSite.h"
#include "UploadHost.h"
#include "dataExchangeExt.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>

using dxtest::Outcome;

namespace {

const QString shareRoot = QStringLiteral(DX_SHARE_ROOT);
const QString cancelled = QStringLiteral("Upload cancelled by the host\n");

struct Calls {
    std::vector<std::array<quint64, 3>> seen;
    uint32_t cancelStage = 0;
};

int32_t DATAEXCHANGE_CALL record(uint32_t stage, uint64_t done, uint64_t total, void* context) {
    auto* calls = static_cast<Calls*>(context);
    calls->seen.push_back({stage, done, total});
    return stage == calls->cancelStage;
}

// Stages in order, each opening with done 0 and never going back.
void expectWellFormed(const std::vector<std::array<quint64, 3>>& seen,
                      const std::vector<quint64>& stages) {
    std::vector<quint64> order;
    for (size_t n = 0; n < seen.size(); ++n) {
        if (order.empty() || order.back() != seen[n][0]) {
            order.push_back(seen[n][0]);
            EXPECT_EQ(seen[n][1], 0u) << "stage " << seen[n][0];
        } else {
            EXPECT_GE(seen[n][1], seen[n - 1][1]) << "stage " << seen[n][0];
        }
    }
    EXPECT_EQ(order, stages);
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back()[1], seen.back()[2]);
}

class Extensions : public testing::Test {
protected:
    void SetUp() override {
        handle = dataExchangeInit(nullptr, 0, nullptr);
        dataExchangeSetInt32Option(handle, "Device type", 0);
        dataExchangeSetInt32Option(handle, "Data type", 0);
        data = work.filePath("cal7");
        QDir().mkpath(data);
        for (const char* name : {"a.bin", "b.bin", "c.bin"}) {
            QFile file(data + "/" + name);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(400000, *name));
        }
        share = shareRoot + "/measurement/processing/cvX/precalibration";
    }
    void TearDown() override {
        dataExchangeClose(&handle);
        dxtest::clearShareRoot();
    }
    Outcome toServer(const QString& host, const QStringList& options,
                     const QString& proxy = QString()) {
        QTemporaryDir app;
        QFile config(app.filePath("config.xml"));
        EXPECT_TRUE(config.open(QIODevice::WriteOnly));
        config.write(QString("<Configuration><Server><Name>%1</Name><Protocol>http</Protocol>"
                             "<Port>1</Port><Timeout>1</Timeout></Server>%2</Configuration>")
                         .arg(host, proxy)
                         .toUtf8());
        config.close();
        return dxtest::runUploadHost(app.path(), data,
                                     QStringList{"dev=0", "dt=0", "loc=2"} + options);
    }

    QTemporaryDir work;
    QString data, share;
    dataExchangeLibraryImp* handle = nullptr;
};

} // namespace

TEST_F(Extensions, NullHandleAndDefaults) {
    EXPECT_EQ(dataExchangeSetProgressCallback(nullptr, record, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeSetStallTimeout(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeSetRemovePackage(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeSetUseConfiguredProxy(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeSetProgressCallback(handle, nullptr, nullptr), Success);
}

TEST_F(Extensions, ProgressAndCancelOnTheSharedFolderRoute) {
    dataExchangeSetUint32Option(handle, "Location", SharedFolder);
    ASSERT_TRUE(QDir().mkpath(share));
    Calls calls;
    dataExchangeSetProgressCallback(handle, record, &calls);
    ASSERT_EQ(dxtest::upload(handle, data).result, Success);
    expectWellFormed(calls.seen, {StagePacking, StageSharedFolder});
    EXPECT_EQ(calls.seen.front()[2], 1200000u);

    for (uint32_t stage : {StagePacking, StageSharedFolder}) {
        Calls cancelling;
        cancelling.cancelStage = stage;
        dataExchangeSetProgressCallback(handle, record, &cancelling);
        const Outcome outcome = dxtest::upload(handle, data);
        EXPECT_EQ(outcome.result, DataHandlingFailed) << stage;
        EXPECT_EQ(outcome.errors, cancelled) << stage;
        EXPECT_EQ(cancelling.seen.back()[0], stage); // nothing after the cancel
    }
    EXPECT_EQ(QDir(share).entryList(QDir::Files).size(), 2); // the first upload and its .info
    EXPECT_EQ(QDir(data).entryList(QDir::Files).size(), 3);
}

TEST_F(Extensions, ProgressCancelAndStallOnTheServerRoute) {
    dxtest::ProcessingSite site, slowUpload({"--delay", "upload=20"}),
        slowJob({"--delay", "job=20"});
    const Outcome done = toServer(site.host(), {"progress=1"});
    ASSERT_EQ(done.result, Success) << done.errors.toStdString();
    expectWellFormed(done.progress, {StagePacking, StageUpload, StageJobRequest});

    struct Case {
        const char* what;
        QString host;
        QStringList options;
        QString errors;
    } cases[] = {
        {"cancel while the upload waits", slowUpload.host(), {"progress=1", "cancel=3"}, cancelled},
        {"cancel while the job request waits",
         slowJob.host(),
         {"progress=1", "cancel=4"},
         cancelled},
        {"stall",
         slowUpload.host(),
         {"stall=1"},
         "No data moved for 1 seconds; request to 'http://" + slowUpload.host() +
             "/uploadFile.php' aborted\n"},
    };
    for (const Case& c : cases) {
        const Outcome outcome = toServer(c.host, c.options);
        EXPECT_EQ(outcome.result, DataHandlingFailed) << c.what;
        EXPECT_EQ(outcome.errors.toStdString(), c.errors.toStdString()) << c.what;
    }
}

TEST_F(Extensions, RemovePackage) {
    QTemporaryDir tmp;
    qputenv("TMPDIR", tmp.path().toLocal8Bit());
    dataExchangeSetUint32Option(handle, "Location", SharedFolder);
    const auto folders = [&] {
        return QDir(tmp.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
    };
    EXPECT_EQ(dxtest::upload(handle, data).result, DataHandlingFailed); // no shared folder
    EXPECT_EQ(folders(), 1);
    dataExchangeSetRemovePackage(handle, 1);
    EXPECT_EQ(dxtest::upload(handle, data).result, DataHandlingFailed);
    ASSERT_TRUE(QDir().mkpath(share));
    EXPECT_EQ(dxtest::upload(handle, data).result, Success);
    EXPECT_EQ(folders(), 1);
    EXPECT_EQ(QDir(share).entryList(QDir::Files).size(), 2);
    qunsetenv("TMPDIR");
}

TEST_F(Extensions, ConfiguredProxy) {
    if (QProcess::execute("sh", {"-c", "command -v tinyproxy >/dev/null"}) != 0)
        GTEST_SKIP() << "tinyproxy is not installed";
    dxtest::ProcessingSite site;
    QTemporaryDir proxyFolder;
    QTcpServer probe;
    ASSERT_TRUE(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    QFile config(proxyFolder.filePath("tinyproxy.conf"));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write(QString("Port %1\nListen 127.0.0.1\nTimeout 30\nLogLevel Info\nMaxClients 8\n"
                         "Allow 127.0.0.1\nLogFile \"%2\"\nBasicAuth demo secret\n")
                     .arg(port)
                     .arg(proxyFolder.filePath("log"))
                     .toUtf8());
    config.close();
    QProcess proxy;
    proxy.start("tinyproxy", {"-d", "-c", config.fileName()});
    ASSERT_TRUE(proxy.waitForStarted());
    for (int n = 0; n < 100 && !QFile::exists(proxyFolder.filePath("log")); ++n)
        QThread::msleep(50);
    const QString url = QString("http://127.0.0.1:%1").arg(port);
    const auto element = [&](const QString& proxyUrl, const QString& user) {
        return QString("<Proxy><Url>%1</Url><User>%2</User><Password>secret</Password></Proxy>")
            .arg(proxyUrl, user);
    };
    struct Case {
        const char* what;
        QString proxyElement;
        QString use;
        int result;
        QString errors;
    } cases[] = {
        {"through the proxy", element(url, "demo"), "proxy=1", Success, ""},
        {"ignored by default", element("http://127.0.0.1:1", "demo"), "proxy=0", Success, ""},
        {"unusable url", element("ftp://proxy", "demo"), "proxy=1", DataHandlingFailed,
         "Invalid proxy URL 'ftp://proxy'\n"},
        {"wrong password", element(url, "nobody"), "proxy=1", DataHandlingFailed,
         "Unknown error handling data\n"},
    };
    for (const Case& c : cases) {
        const Outcome outcome = toServer(site.host(), {c.use}, c.proxyElement);
        EXPECT_EQ(outcome.result, c.result) << c.what;
        EXPECT_EQ(outcome.errors.toStdString(), c.errors.toStdString()) << c.what;
    }
    proxy.terminate();
    proxy.waitForFinished();
    QFile log(proxyFolder.filePath("log"));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("uploadFile.php"));
    EXPECT_EQ(site.jobs().size(), 2u);
}
