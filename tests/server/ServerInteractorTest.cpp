// Requests against the local processing site: what arrives, and what a failure leaves in
// lastError().
#include "server/ServerInteractor.h"
#include "ProcessingSite.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaMethod>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <gtest/gtest.h>
#include <string>

using measurement::dataExchange::ServerInteractor;

namespace {

const auto* const application =
    testing::AddGlobalTestEnvironment(new dxtest::ApplicationEnvironment);

// A site, a config.xml for it (without any Server element when protocol is null; with a wrong
// Port otherwise: only the Name may carry the port) and an interactor that has read it.
struct Session {
    explicit Session(const QStringList& switches = {}, const QMap<QString, QString>& fields = {},
                     const char* protocol = "http")
        : site(switches), server(fields) {
        const QString config = protocol
                                   ? dxtest::writeServerConfig(folder.path(), site.host(), protocol)
                                   : folder.filePath("config.xml");
        ready = site.isRunning() && (protocol || dxtest::writeFile(config, "<Configuration/>")) &&
                server.readConfiguration(config) && dxtest::writeFile(data, "payload");
    }

    QTemporaryDir folder;
    dxtest::ProcessingSite site;
    ServerInteractor server;
    const QString data = folder.filePath("data.bin");
    bool ready = false;
};

bool shell(const QString& folder, const QString& commands) {
    return QProcess::execute("sh", {"-c", "cd '" + folder + "' && " + commands}) == 0;
}

TEST(Upload, SendsTheFileAsPartFileAndTheJobFollows) {
    Session session({}, {{"sn", "4294967295"}, {"user", "Jörg Müller & Co=1"}, {"device", "cvX5"}});
    ASSERT_TRUE(session.ready);
    // Several megabytes with delimiter look-alikes: the body must arrive exactly as it is.
    QByteArray content;
    for (int i = 0; content.size() < 3 * 1024 * 1024; ++i)
        content += QByteArray(997, char(i)) + "\r\n--boundary_.oOo._" + (i % 2 ? "--" : "\r\n");
    const QString path = session.folder.filePath("sub/dir/precalibration_cal7.zip");
    ASSERT_TRUE(dxtest::writeFile(path, content));

    QString answer;
    ASSERT_TRUE(session.server.uploadFile(path, answer)) << session.server.lastError();
    EXPECT_EQ(answer, "precalibration_cal7.zip");
    EXPECT_TRUE(dxtest::readFile(session.site.storedFile(answer)) == content);
    const auto uploads = session.site.uploads();
    ASSERT_EQ(uploads.size(), 1u);
    const QString type = uploads[0].value("content_type").toString();
    EXPECT_TRUE(type.startsWith(R"(multipart/form-data; boundary="boundary_.oOo._)"))
        << type.toStdString();
    const auto parts = uploads[0].value("parts").toArray();
    ASSERT_EQ(parts.size(), 1);
    EXPECT_EQ(parts[0].toObject().value("disposition").toString(),
              R"(form-data; name="file"; filename="precalibration_cal7.zip")");
    EXPECT_EQ(parts[0].toObject().value("content_type").toString(), "application/octet-stream");

    ASSERT_TRUE(session.server.pushJob(answer)) << session.server.lastError();
    const auto jobs = session.site.jobs();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].value("content_type").toString(), "application/x-www-form-urlencoded");
    // Decoded as a form: in key order, UTF-8, the file last.
    EXPECT_EQ(QJsonDocument(jobs[0].value("fields").toArray()).toJson(QJsonDocument::Compact),
              R"([["device","cvX5"],["sn","4294967295"],["user","Jörg Müller & Co=1"],)"
              R"(["file","precalibration_cal7.zip"]])");
}

TEST(Upload, EmptyAnswerCountsAndBecomesABareFileField) {
    Session session({"--empty-body", "upload"});
    ASSERT_TRUE(session.ready);
    QString answer = "unchanged";
    ASSERT_TRUE(session.server.uploadFile(session.data, answer)) << session.server.lastError();
    EXPECT_TRUE(answer.isEmpty());
    ASSERT_TRUE(session.server.pushJob(answer)) << session.server.lastError();
    ASSERT_EQ(session.site.jobs().size(), 1u);
    EXPECT_EQ(session.site.jobs()[0].value("body").toString(), "file");
}

// Failures: the reply's own error text reaches lastError().
struct FailureCase {
    const char* name;
    const char* switches; // of the site, separated by spaces
    enum { Running, Stopped, NoServerElement, NoFile } target;
    bool upload;       // else the job request
    const char* error; // %1 stands for the request's URL
};

const FailureCase failureCases[] = {
    {"UploadNotFound", "--status upload=404", FailureCase::Running, true,
     "Error transferring %1 - server replied: Not Found"},
    {"JobForbidden", "--status job=403", FailureCase::Running, false,
     "Error transferring %1 - server replied: Forbidden"},
    {"UploadClosedWithoutAnswer", "--close upload", FailureCase::Running, true,
     "Connection closed"},
    {"JobRefused", "", FailureCase::Stopped, false, "Connection refused"},
    {"UploadWithoutServerElement", "", FailureCase::NoServerElement, true,
     "Protocol \"\" is unknown"},
    {"UploadOfUnopenableFile", "", FailureCase::NoFile, true,
     "Could not open file '/nonexistent/x.zip'"},
};

class RequestFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(RequestFailure, GivesTheReplysErrorText) {
    const FailureCase& row = GetParam();
    Session session(QString(row.switches).split(' ', Qt::SkipEmptyParts), {},
                    row.target == FailureCase::NoServerElement ? nullptr : "http");
    ASSERT_TRUE(session.ready);
    if (row.target == FailureCase::Stopped)
        session.site.stop();
    const QString file = row.target == FailureCase::NoFile ? "/nonexistent/x.zip" : session.data;
    QString answer = "unchanged";
    EXPECT_FALSE(row.upload ? session.server.uploadFile(file, answer)
                            : session.server.pushJob("x"));
    EXPECT_EQ(answer, "unchanged");
    const QString url =
        QString("http://%1/%2")
            .arg(session.site.host(), row.upload ? "uploadFile.php" : "pushJob.php");
    EXPECT_EQ(session.server.lastError(), QString(row.error).replace("%1", url).toStdString());
    EXPECT_TRUE(row.target != FailureCase::NoFile || session.site.uploads().empty());
}

INSTANTIATE_TEST_SUITE_P(Rows, RequestFailure, testing::ValuesIn(failureCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(FinishedSlot, IsReachableThroughTheMetaObject) {
    ServerInteractor server({});
    const int index = server.metaObject()->indexOfSlot("fileUploadFinished(QNetworkReply*)");
    ASSERT_GE(index, 0);
    EXPECT_EQ(server.metaObject()->method(index).access(), QMetaMethod::Protected);
    EXPECT_EQ(server.metaObject()->method(index).parameterNames(), QList<QByteArray>{"reply"});
}

// A CA made by the openssl CLI and a certificate it signed for 127.0.0.1: refused until the test
// itself trusts the CA (the library never weakens verification), then carrying upload and job.
TEST(Https, OnlyATrustedCertificateCarriesUploadAndJob) {
    QTemporaryDir certificates;
    ASSERT_TRUE(
        shell(certificates.path(),
              "echo subjectAltName=IP:127.0.0.1 >san.cnf && openssl req -x509 -days 2 "
              "-subj /CN=dataExchange-test-CA -newkey ec -pkeyopt "
              "ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.pem && openssl req "
              "-subj /CN=127.0.0.1 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
              "-keyout server.key -out server.csr && openssl x509 -req -days 2 -in "
              "server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile san.cnf -out "
              "server.pem"));
    Session session({"--cert", certificates.filePath("server.pem"), "--key",
                     certificates.filePath("server.key")},
                    {{"sn", "42"}}, "https");
    ASSERT_TRUE(session.ready);
    ServerInteractor& server = session.server;
    QString answer;
    EXPECT_FALSE(server.uploadFile(session.data, answer));
    EXPECT_EQ(server.lastError(), "SSL handshake failed");
    EXPECT_FALSE(server.pushJob("data.bin"));
    EXPECT_EQ(server.lastError(), "SSL handshake failed");
    EXPECT_TRUE(session.site.uploads().empty() && session.site.jobs().empty());

    auto trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificates(QSslCertificate::fromPath(certificates.filePath("ca.pem")));
    QSslConfiguration::setDefaultConfiguration(trusting);
    EXPECT_TRUE(server.uploadFile(session.data, answer)) << server.lastError();
    EXPECT_TRUE(server.pushJob(answer)) << server.lastError();
    ASSERT_EQ(session.site.jobs().size(), 1u);
    EXPECT_EQ(session.site.jobs()[0].value("body").toString(), "sn=42&file=data.bin");
}

// The child half of NoSsl.NothingIsSent: runs only in a process given stub SSL libraries.
TEST(NoSsl, DISABLED_ChildReportsNoSslSupport) {
    ASSERT_FALSE(QSslSocket::supportsSsl());
    ServerInteractor server({{"sn", "1"}});
    const QString folder = qEnvironmentVariable("DX_CHILD_FOLDER");
    ASSERT_TRUE(server.readConfiguration(folder + "/config.xml"));
    QString answer = QStringLiteral("unchanged");
    EXPECT_FALSE(server.uploadFile(folder + "/data.bin", answer));
    EXPECT_EQ(server.lastError(), "No SSL support");
    EXPECT_EQ(answer, QStringLiteral("unchanged"));
    EXPECT_FALSE(server.pushJob("x"));
    EXPECT_EQ(server.lastError(), "No SSL support");
}

// Empty shared objects under the names Qt loads: SSL then counts as unavailable, and nothing may
// be sent, not even over plain http.
TEST(NoSsl, NothingIsSent) {
    Session session;
    ASSERT_TRUE(session.ready);
    const QString folder = session.folder.path();
    ASSERT_TRUE(shell(folder,
                      "echo 'int x;' >stub.c && cc -shared -o libssl.so.3 stub.c && for n "
                      "in libssl.so libcrypto.so libcrypto.so.3; do cp libssl.so.3 $n; done"));
    // Only a child whose one test passed counts; its output stays visible.
    EXPECT_TRUE(
        shell(folder, "LD_LIBRARY_PATH=$PWD QT_LOGGING_RULES=qt.network.ssl.warning=false "
                      "DX_CHILD_FOLDER=$PWD '" +
                          QCoreApplication::applicationFilePath() +
                          "' --gtest_also_run_disabled_tests --gtest_filter=NoSsl.DISABLED_* "
                          "| tee /dev/stderr | grep -qF '[  PASSED  ] 1 test.'"));
    EXPECT_TRUE(session.site.uploads().empty() && session.site.jobs().empty());
}

} // namespace
