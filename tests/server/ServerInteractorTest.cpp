// Requests over HTTPS against the PHP processing site (Apache), and an upload whose file cannot be
// opened. What arrives over HTTP, and what a failed request reports, is tested through the upload
// export (tests/api).
#include "server/ServerInteractor.h"
#include "ProcessingSite.h"
#include "UploadFixture.h"

#include <QCoreApplication>
#include <QSslCertificate>
#include <QSslConfiguration>

using measurement::dataExchange::ServerInteractor;

namespace {

// Requests wait on an event loop, which needs an application object; GoogleTest's main makes none.
int argc = 1;
char name[] = "serverTest";
char* argv[] = {name, nullptr};
QCoreApplication* const application = new QCoreApplication(argc, argv);

// A test CA and a certificate it signed for 127.0.0.1: once the test trusts the CA, upload and job
// go over HTTPS. That the library refuses the certificate until then is shown through the upload
// export (tests/data/upload-cases.txt, "an untrusted certificate").
TEST(Https, OnlyATrustedCertificateCarriesUploadAndJob) {
    QTemporaryDir certificates;
    ASSERT_EQ(QProcess::execute(
                  "sh", {DX_SOURCE_DIR "/tests/support/make-test-ca.sh", certificates.path()}),
              0);
    dxtest::ProcessingSite site({"php", "--cert", certificates.filePath("server.pem"), "--key",
                                 certificates.filePath("server.key")});
    ServerInteractor server({{"sn", "42"}});
    const QString data = certificates.filePath("data.bin");
    ASSERT_TRUE(server.readConfiguration(
                    dxtest::writeServerConfig(certificates.path(), site.host(), "https")) &&
                dxtest::writeFile(data, "payload"));
    QString answer;
    auto trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificates(QSslCertificate::fromPath(certificates.filePath("ca.pem")));
    QSslConfiguration::setDefaultConfiguration(trusting);
    EXPECT_TRUE(server.uploadFile(data, answer)) << server.lastError();
    EXPECT_TRUE(server.pushJob(answer)) << server.lastError();
    ASSERT_EQ(site.jobs().size(), 1u);
    EXPECT_EQ(site.jobs()[0].value("body").toString(), "sn=42&file=data.bin");
}

// A packed item that is gone by the time of the upload: the message names it, and nothing is
// sent (the configuration names a closed port, which would give another message).
TEST(Upload, AFileThatCannotBeOpenedIsNamed) {
    QTemporaryDir folder;
    ServerInteractor server({});
    ASSERT_TRUE(server.readConfiguration(dxtest::writeServerConfig(folder.path(), "127.0.0.1:1")));
    const QString gone = folder.filePath("precalibration_cal7.zip");
    QString answer;
    EXPECT_FALSE(server.uploadFile(gone, answer));
    EXPECT_EQ(server.lastError(), "Could not open file '" + gone.toStdString() + "'");
}

} // namespace
