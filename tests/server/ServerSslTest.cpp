// HTTPS against the local site with a test CA made by the openssl CLI, and a process in which
// Qt finds no usable SSL library: nothing may be sent then, not even over plain http.
#include "ProcessingSite.h"
#include "server/ServerInteractor.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using measurement::dataExchange::ServerInteractor;

namespace {

const auto* const application =
    testing::AddGlobalTestEnvironment(new dxtest::ApplicationEnvironment);

bool run(const QString& program, const QStringList& arguments, const QString& folder) {
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    return process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

class Https : public testing::Test {
protected:
    // A CA and a server certificate it signed, valid for 127.0.0.1 and localhost.
    static void SetUpTestSuite() {
        const char* const commands[] = {
            "req -x509 -days 2 -subj /CN=dataExchange-test-CA -newkey ec -pkeyopt "
            "ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.pem",
            "req -subj /CN=127.0.0.1 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
            "-keyout server.key -out server.csr",
            "x509 -req -days 2 -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile "
            "san.cnf -out server.pem"};
        created = dxtest::writeFile(certificates.filePath("san.cnf"),
                                    "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
        for (const char* command : commands)
            created = created && run("openssl", QString(command).split(' '), certificates.path());
    }

    void SetUp() override {
        ASSERT_TRUE(created);
        ASSERT_TRUE(site.isRunning());
        const QString config = dxtest::writeServerConfig(folder.path(), site.host(), "https");
        ASSERT_TRUE(server.readConfiguration(config)) << server.lastError();
        ASSERT_TRUE(dxtest::writeFile(dataFile, "payload"));
    }

    void TearDown() override { QSslConfiguration::setDefaultConfiguration(original); }

    // The library never weakens verification: trusting the test CA is the test's own doing.
    void trustTestCa() {
        auto configuration = QSslConfiguration::defaultConfiguration();
        configuration.addCaCertificates(QSslCertificate::fromPath(certificates.filePath("ca.pem")));
        QSslConfiguration::setDefaultConfiguration(configuration);
    }

    static inline QTemporaryDir certificates;
    static inline bool created = false;

    QTemporaryDir folder;
    dxtest::ProcessingSite site{{"--cert", certificates.filePath("server.pem"), "--key",
                                 certificates.filePath("server.key")}};
    ServerInteractor server{{{"sn", "42"}}};
    const QString dataFile = folder.filePath("data.bin");
    const QSslConfiguration original = QSslConfiguration::defaultConfiguration();
};

TEST_F(Https, TrustedCertificateCarriesUploadAndJob) {
    trustTestCa();
    QString answer;
    ASSERT_TRUE(server.uploadFile(dataFile, answer)) << server.lastError();
    EXPECT_EQ(answer, QStringLiteral("data.bin"));
    ASSERT_TRUE(server.pushJob(answer)) << server.lastError();
    ASSERT_EQ(site.jobs().size(), 1u);
    EXPECT_EQ(site.jobs()[0].value("body").toString(), "sn=42&file=data.bin");
}

TEST_F(Https, UntrustedCertificateFailsWithQtsText) {
    QString answer;
    EXPECT_FALSE(server.uploadFile(dataFile, answer));
    EXPECT_EQ(server.lastError(), "SSL handshake failed");
    EXPECT_FALSE(server.pushJob("data.bin"));
    EXPECT_EQ(server.lastError(), "SSL handshake failed");
    EXPECT_TRUE(site.uploads().empty());
    EXPECT_TRUE(site.jobs().empty());
}

// The child half of NoSsl.NothingIsSent: runs only in a process given stub SSL libraries.
TEST(NoSsl, DISABLED_ChildReportsNoSslSupport) {
    ASSERT_FALSE(QSslSocket::supportsSsl());
    ServerInteractor server({{"sn", "1"}});
    ASSERT_TRUE(server.readConfiguration(qEnvironmentVariable("DX_CHILD_CONFIG")));
    QString answer = QStringLiteral("unchanged");
    EXPECT_FALSE(server.uploadFile(qEnvironmentVariable("DX_CHILD_FILE"), answer));
    EXPECT_EQ(server.lastError(), "No SSL support");
    EXPECT_EQ(answer, QStringLiteral("unchanged"));
    EXPECT_FALSE(server.pushJob("x"));
    EXPECT_EQ(server.lastError(), "No SSL support");
}

TEST(NoSsl, NothingIsSent) {
    QTemporaryDir folder;
    dxtest::ProcessingSite site;
    ASSERT_TRUE(site.isRunning());
    // Empty shared objects under the names Qt loads: SSL then counts as unavailable.
    const QString stub = folder.filePath("libssl.so.3");
    ASSERT_TRUE(dxtest::writeFile(folder.filePath("stub.c"), "int x;\n"));
    ASSERT_TRUE(run("cc", {"-shared", "-o", stub, "stub.c"}, folder.path()));
    for (const char* name : {"libssl.so", "libcrypto.so", "libcrypto.so.3"})
        ASSERT_TRUE(QFile::copy(stub, folder.filePath(name)));
    ASSERT_TRUE(dxtest::writeFile(folder.filePath("data.bin"), "payload"));

    QProcess child;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LD_LIBRARY_PATH", folder.path());
    environment.insert("QT_LOGGING_RULES", "qt.network.ssl.warning=false");
    environment.insert("DX_CHILD_CONFIG",
                       dxtest::writeServerConfig(folder.path(), site.host(), "http"));
    environment.insert("DX_CHILD_FILE", folder.filePath("data.bin"));
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_also_run_disabled_tests",
                 "--gtest_filter=NoSsl.DISABLED_ChildReportsNoSslSupport"});
    ASSERT_TRUE(child.waitForFinished(-1));
    const QByteArray output = child.readAll();
    EXPECT_EQ(child.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test.")) << output.toStdString();
    EXPECT_TRUE(site.uploads().empty());
    EXPECT_TRUE(site.jobs().empty());
}

} // namespace
