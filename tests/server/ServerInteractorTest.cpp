// Requests against the local processing site: what arrives, over HTTP and HTTPS. What a failed
// request reports is tested through the upload export (tests/api).
#include "server/ServerInteractor.h"
#include "ProcessingSite.h"
#include "UploadFixture.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSslCertificate>
#include <QSslConfiguration>

using measurement::dataExchange::ServerInteractor;

namespace {

// Requests wait on an event loop, which needs an application object; the shared main makes none.
int argc = 1;
char name[] = "serverTest";
char* argv[] = {name, nullptr};
QCoreApplication* const application = new QCoreApplication(argc, argv);

// A site, a config.xml for it and an interactor that has read it.
struct Session {
    explicit Session(const QStringList& switches = {}, const QMap<QString, QString>& fields = {},
                     const char* protocol = "http")
        : site(switches), server(fields) {
        ready = site.isRunning() &&
                server.readConfiguration(
                    dxtest::writeServerConfig(folder.path(), site.host(), protocol)) &&
                dxtest::writeFile(data, "payload");
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

TEST(Requests, TheFileGoesAsPartFileAndTheJobAsAForm) {
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
    EXPECT_TRUE(uploads[0]
                    .value("content_type")
                    .toString()
                    .startsWith(R"(multipart/form-data; boundary="boundary_.oOo._)"));
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

TEST(Requests, AnEmptyAnswerCountsAndBecomesABareFileField) {
    Session session({"--empty-body", "upload"});
    ASSERT_TRUE(session.ready);
    QString answer = "unchanged";
    ASSERT_TRUE(session.server.uploadFile(session.data, answer)) << session.server.lastError();
    EXPECT_TRUE(answer.isEmpty());
    ASSERT_TRUE(session.server.pushJob(answer)) << session.server.lastError();
    ASSERT_EQ(session.site.jobs().size(), 1u);
    EXPECT_EQ(session.site.jobs()[0].value("body").toString(), "file");
}

// A CA made by the openssl CLI and a certificate it signed for 127.0.0.1: refused until the test
// itself trusts the CA (the library never weakens verification), then carrying upload and job.
TEST(Https, OnlyATrustedCertificateCarriesUploadAndJob) {
    QTemporaryDir certificates;
    const QString key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    ASSERT_TRUE(
        shell(certificates.path(),
              "echo subjectAltName=IP:127.0.0.1 >san.cnf && openssl req -x509 -days 2 "
              "-subj /CN=dataExchange-test-CA " +
                  key +
                  " -keyout ca.key -out ca.pem && "
                  "openssl req -subj /CN=127.0.0.1 " +
                  key +
                  " -keyout server.key -out "
                  "server.csr && openssl x509 -req -days 2 -in server.csr -CA ca.pem -CAkey "
                  "ca.key -CAcreateserial -extfile san.cnf -out server.pem"));
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

} // namespace
