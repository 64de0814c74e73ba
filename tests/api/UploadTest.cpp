// The upload export end to end through the C ABI: real folders, the build's share root as the
// shared folder, the local processing site, and hosts in folders of their own beside config.xml.
// Each failure gives its exact result and message, and nothing is half delivered.
#include "ProcessingSite.h"
#include "UploadFixture.h"
#include "dataExchangeExt.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QThread>
#include <sys/stat.h>
#include <unistd.h>

using namespace dxtest;

namespace {

const QString stamp = "\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d";

// Stages in order, each opening with done 0 and never going back, the last one complete.
void expectWellFormed(const std::vector<std::array<quint64, 3>>& seen,
                      const std::vector<quint64>& stages) {
    std::vector<quint64> order;
    for (size_t n = 0; n < seen.size(); ++n) {
        const bool opens = order.empty() || order.back() != seen[n][0];
        if (opens)
            order.push_back(seen[n][0]);
        EXPECT_TRUE(opens ? seen[n][1] == 0 : seen[n][1] >= seen[n - 1][1]) << n;
    }
    EXPECT_EQ(order, stages);
    EXPECT_TRUE(stages.empty() || seen.back()[1] == seen.back()[2]);
}

using Upload = UploadFixture;

} // namespace

TEST_F(Upload, RemovePackage) {
    qputenv("TMPDIR", tmp.toLocal8Bit());
    dataExchangeSetInt32Option(handle, "Device type", 0);
    dataExchangeSetInt32Option(handle, "Data type", Precalibration);
    const auto folders = [&] { return QDir(tmp).entryList(QDir::Dirs | QDir::NoDotAndDotDot); };
    EXPECT_EQ(upload(handle, data + "/cal7").result, DataHandlingFailed); // no shared folder
    EXPECT_EQ(folders().size(), 1);
    dataExchangeSetRemovePackage(handle, 1);
    EXPECT_EQ(upload(handle, data + "/cal7").result, DataHandlingFailed);
    ASSERT_TRUE(QDir().mkpath(sharedFolder("cvX", "precalibration")));
    EXPECT_EQ(upload(handle, data + "/cal7").result, Success);
    EXPECT_EQ(folders().size(), 1);
    qunsetenv("TMPDIR");
}

namespace {

// "<stamp>_logFile_" and this name fit into a file name of 255 bytes; with ".info" they do not.
const QString longName = QString(221, 'n') + ".csv";

// tests/data/upload-cases.txt: one map of key to value per [name] block.
std::vector<QMap<QString, QString>> readCases() {
    std::vector<QMap<QString, QString>> cases;
    for (const QString& line :
         QString::fromUtf8(readFile(DX_SOURCE_DIR "/tests/data/upload-cases.txt")).split('\n')) {
        if (line.startsWith('['))
            cases.push_back({{"what", line.mid(1, line.size() - 2)},
                             {"source", "cal7"},
                             {"result", "0"},
                             {"share", "cvX/precalibration"}});
        else if (!line.startsWith('#') && line.contains(':') && !cases.empty())
            cases.back()[line.section(':', 0, 0)] =
                line.section(':', 1).trimmed().replace("{long}", longName);
    }
    return cases;
}

// A tinyproxy on loopback that asks for user "demo" and password "secret".
struct Proxy {
    explicit Proxy(const QTemporaryDir& work) : log(work.filePath("proxy.log")) {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        url = QString("http://127.0.0.1:%1").arg(probe.serverPort());
        writeFile(work.filePath("tinyproxy.conf"),
                  QString("Port %1\nListen 127.0.0.1\nTimeout 30\nMaxClients 8\nAllow 127.0.0.1\n"
                          "LogFile \"%2\"\nBasicAuth demo secret\n")
                      .arg(probe.serverPort())
                      .arg(log)
                      .toUtf8());
        probe.close();
        process.start("tinyproxy", {"-d", "-c", work.filePath("tinyproxy.conf")});
        for (int n = 0; n < 100 && !QFile::exists(log); ++n)
            QThread::msleep(50);
    }
    ~Proxy() {
        process.terminate();
        process.waitForFinished();
    }
    const QString log;
    QString url;
    QProcess process;
};

// The text as an anchored pattern, each {key} standing for its pattern.
QString pattern(QString text, const QMap<QString, QString>& patterns) {
    text = QRegularExpression::escape(text);
    for (auto it = patterns.cbegin(); it != patterns.cend(); ++it)
        text.replace(QRegularExpression::escape("{" + it.key() + "}"), it.value());
    return QRegularExpression::anchoredPattern(text);
}

} // namespace

// Each case: its exact result and message, nothing half delivered, and the temporary folders
// gone when the host has unloaded the library.
TEST_F(Upload, ThroughAHost) {
    const std::vector<QMap<QString, QString>> cases = readCases();
    ASSERT_EQ(cases.size(), 89u);
    const Proxy tinyproxy(work);
    // A test CA's, for {certificates}; in a folder whose name holds no blank.
    const QTemporaryDir certificates(QDir::tempPath() + "/dxCertificates-XXXXXX");
    ASSERT_EQ(QProcess::execute(
                  "sh", {DX_SOURCE_DIR "/tests/support/make-test-ca.sh", certificates.path()}),
              0);
    // Every row through Qt, then through libcurl's streaming upload, which a "streamed-" key
    // expects otherwise where the two differ.
    for (const bool streamed : {false, true})
        for (const auto& row : cases) {
            const auto c = [&] { // const: a missing key reads empty, it is not added
                auto keys = row;
                for (const QString& key : row.keys())
                    if (streamed && key.startsWith("streamed-"))
                        keys[key.mid(9)] = row[key];
                return keys;
            }();
            SCOPED_TRACE(c["what"].toStdString() + (streamed ? " (streamed)" : ""));
            const qint64 proxyLogBefore = QFileInfo(tinyproxy.log).size();
            const QStringList arrange = c["arrange"].split(' ', Qt::SkipEmptyParts);
            const QString spool = work.filePath("spool");
            QStringList options = c["options"].split(' ');
            if (streamed)
                options << "stream=1";
            options.replaceInStrings("{spool}", spool); // a path that may hold blanks
            const QString share = DX_SHARE_ROOT "/measurement/processing/" + c["share"];
            const bool arranged =
                QDir().mkpath(app) &&
                (!arrange.contains("long-name") || writeFile(data + "/" + longName, "")) &&
                (!arrange.contains("fifo") ||
                 mkfifo(QFile::encodeName(data + "/fifo"), 0644) == 0) &&
                (!arrange.contains("share") || QDir().mkpath(share)) &&
                (!arrange.contains("folders") || QDir().mkpath(data + "/run/inner")) &&
                (!arrange.contains("big") ||
                 writeFile(data + "/big/b.bin", randomBytes(24 << 20))) &&
                writeFile(data + QStringLiteral("/Kalibrierung_\u00d8+1/Messung_\u00e4.csv"),
                          "1") &&
                QDir().mkpath(data + "/empty") &&
                (!arrange.contains("share-is-file") || writeFile(share, ""));
            ASSERT_TRUE(arranged);
            std::unique_ptr<ProcessingSite> site;
            const QString switches =
                QString(c["site"]).replace("{certificates}", certificates.path());
            if (switches != "none")
                site = std::make_unique<ProcessingSite>(switches.split(' ', Qt::SkipEmptyParts));
            ASSERT_TRUE(!site || site->isRunning());
            if (arrange.contains("clash")) // a name the server has already stored
                writeFile(site->storedFile("precalibration_cal7.zip"), "");
            const QString host = site ? site->host() : "127.0.0.1:1";
            if (arrange.contains("config-incomplete"))
                writeFile(app + "/config.xml", "<Configuration><Server><Name>x</Name><Protocol>http"
                                               "</Protocol></Server></Configuration>");
            else if (!arrange.contains("no-config"))
                writeServerConfig(arrange.contains("config-in-data") ? data : app, host,
                                  arrange.contains("https") ? "https" : "http",
                                  QString(c["proxy"]).replace("{proxy}", tinyproxy.url));
            if (arrange.contains("dead-config-in-data"))
                writeServerConfig(data, "127.0.0.1:1");
            chmod(QFile::encodeName(data + "/cal7/b.csv"),
                  arrange.contains("locked-file") ? 0 : 0644);

            if (site) // the PHP site's Apache, for a restart in the middle of an upload
                options.replaceInStrings("{sitepid}", site->file("apache.pid"));
            const Outcome outcome =
                runHost(data + "/" + c["source"], QStringList{"dev=0", "dt=0"} + options,
                        arrange.contains("locked-file"), arrange.contains("no-ssl"));
            EXPECT_EQ(outcome.result, c["result"].toInt());
            const QMap<QString, QString> patterns{
                {"tmp", QRegularExpression::escape(tmp) + "/tmp\\w+"},
                {"stamp", stamp},
                {"share", QRegularExpression::escape(share)},
                {"site", QRegularExpression::escape(host)},
                {"app", QRegularExpression::escape(app)},
                {"data", QRegularExpression::escape(data)},
                {"spool", QRegularExpression::escape(spool)},
                {"item", "\\d{8}-\\d{9}-[0-9a-f]{8}"},
                {"any", ".*"}};
            const QString errors =
                c["errors"].isEmpty() ? "" : QString(c["errors"]).replace("\\n", "\n") + "\n";
            EXPECT_TRUE(
                QRegularExpression(pattern(errors, patterns)).match(outcome.errors).hasMatch())
                << outcome.errors.toStdString();
            if (c.contains("stored-as")) {
                EXPECT_EQ(outcome.stored, c["stored-as"]);
            }
            if (c.contains("stored")) {
                const QStringList stored = QDir(site->storedFile("")).entryList(QDir::Files);
                EXPECT_EQ(stored.isEmpty() ? "" : zipNames(site->storedFile(stored[0])).join(','),
                          c["stored"]);
            }
            if (c.contains("name")) {
                EXPECT_TRUE(
                    QRegularExpression(pattern(c["name"], patterns)).match(outcome.name).hasMatch())
                    << outcome.name.toStdString();
            }
            if (c.contains("info")) {
                EXPECT_EQ(readFile(share + "/" + outcome.name + ".info"),
                          QString(c["info"]).replace("\\n", "\n").toUtf8());
            }
            if (c.contains("upload")) {
                const QJsonObject request = site->uploads().at(0);
                const QJsonObject part = request["parts"].toArray().at(0).toObject();
                EXPECT_EQ(request["content_type"].toString().section("._", 0, 0) + "._ | " +
                              part["disposition"].toString() + " | " +
                              part["content_type"].toString(),
                          c["upload"]);
            }
            if (c["job"] == "none")
                EXPECT_TRUE(site->jobs().empty());
            else if (c.contains("job")) {
                ASSERT_EQ(site->jobs().size(), 1u);
                EXPECT_EQ(site->jobs()[0].value("content_type"),
                          "application/x-www-form-urlencoded");
                EXPECT_EQ(site->jobs()[0].value("body").toString().toStdString(),
                          c["job"].toStdString());
                EXPECT_EQ(outcome.location, 2u);
            }
            if (c.contains("fields")) { // as the PHP site decoded them
                ASSERT_EQ(site->jobs().size(), 1u);
                EXPECT_EQ(QJsonDocument(site->jobs().at(0)["fields"].toObject())
                              .toJson(QJsonDocument::Compact),
                          c["fields"].toUtf8());
            }
            if (c.contains(
                    "requests")) { // what really reached the site, Qt's own re-sends included
                QMap<QString, int> counts;
                for (const QJsonObject& request : site->requests())
                    ++counts[request["script"].toString().section(QRegularExpression("[A-Z]"), 0,
                                                                  0)];
                EXPECT_EQ(QString("upload=%1 job=%2").arg(counts["upload"]).arg(counts["push"]),
                          c["requests"]);
            }
            if (c.contains("spooled")) {
                EXPECT_EQ(QDir(spool).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(),
                          c["spooled"].toInt());
                QDir(spool).removeRecursively();
            }
            if (c.contains("proxied")) {
                const QString log = QString::fromUtf8(readFile(tinyproxy.log).mid(proxyLogBefore));
                QStringList scripts;
                auto requests = QRegularExpression(
                                    R"(Request \(file descriptor \d+\): POST http://[^/]+/(\S+))")
                                    .globalMatch(log);
                while (requests.hasNext())
                    scripts << requests.next().captured(1);
                scripts.removeDuplicates(); // Qt asks once without credentials, then with them
                EXPECT_EQ(scripts.join(' ').toStdString(), c["proxied"].toStdString());
            }
            if (c.contains("stages")) {
                std::vector<quint64> stages;
                for (const QString& stage : c["stages"].split(' '))
                    stages.push_back(stage.toULongLong());
                expectWellFormed(outcome.progress, stages);
                EXPECT_EQ(outcome.progress.front()[2], 8u); // the bytes of the two files
            }
            // Nothing half delivered: an item comes with its side file, or nothing is there.
            const int delivered = outcome.result <= 0 && outcome.location == 1 ? 2 : 0;
            EXPECT_EQ(QDir(share).entryList(QDir::Files).size(), delivered);
            EXPECT_EQ(QDir(tmp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
            clearShareRoot();
            for (const QString& leftover : {QString("fifo"), longName, QString("config.xml")})
                QFile::remove(data + "/" + leftover);
            QDir(app).removeRecursively();
        }
    EXPECT_TRUE(readFile(tinyproxy.log).contains("uploadFile.php"));
}

// Verified delivery names a host that no name server knows. The host runs in a network namespace
// of its own: no interface is up there, so the lookup fails on this machine and nothing leaves it.
TEST_F(Upload, VerifiedDeliveryNamesAHostNotFound) {
    if (geteuid() != 0)
        GTEST_SKIP() << "a network namespace of its own (unshare --net) needs root";
    if (QProcess::execute("unshare", {"--net", "true"}) != 0)
        GTEST_SKIP() << "unshare --net is not permitted here";
    ASSERT_FALSE(writeServerConfig(app, "dataexchange.invalid").isEmpty());
    hostWrapper = QStringList{"unshare", "--net"};
    const Outcome outcome = runHost(data + "/cal7", {"dev=0", "dt=0", "loc=2", "verified=1"});
    EXPECT_EQ(outcome.result, DataHandlingFailed);
    EXPECT_EQ(outcome.errors.section('\n', 0, 0).toStdString(),
              "Host dataexchange.invalid not found");
}
