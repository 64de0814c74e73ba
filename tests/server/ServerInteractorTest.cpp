// Requests against the local processing site over plain HTTP: what arrives, byte for byte, and
// which text a failure leaves in lastError().
#include "server/ServerInteractor.h"
#include "ProcessingSite.h"

#include <QJsonArray>
#include <QMetaMethod>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using measurement::dataExchange::ServerInteractor;

namespace {

const auto* const application =
    testing::AddGlobalTestEnvironment(new dxtest::ApplicationEnvironment);

using Fields = QMap<QString, QString>;
using Pairs = std::vector<std::pair<QString, QString>>;

// A site, a config.xml pointing at it (with a wrong Port: only the Name may carry the port) or
// one without any Server element, and an interactor that has read it.
struct Session {
    explicit Session(const QStringList& switches = {}, const Fields& fields = {},
                     bool withServer = true)
        : site(switches), server(fields) {
        const QString config = withServer
                                   ? dxtest::writeServerConfig(folder.path(), site.host(), "http")
                                   : folder.filePath("config.xml");
        ready = site.isRunning() && (withServer || dxtest::writeFile(config, "<Configuration/>")) &&
                server.readConfiguration(config) && dxtest::writeFile(data, "payload");
    }

    QTemporaryDir folder;
    dxtest::ProcessingSite site;
    ServerInteractor server;
    const QString data = folder.filePath("data.bin");
    bool ready = false;
};

Pairs receivedFields(const QJsonObject& job) {
    Pairs pairs;
    for (const auto& pair : job.value("fields").toArray())
        pairs.emplace_back(pair.toArray().at(0).toString(), pair.toArray().at(1).toString());
    return pairs;
}

TEST(Upload, SendsTheFileAsPartFileAndTheJobFollows) {
    Session session({}, {{"sn", "4294967295"}, {"type", "precalibration"}, {"device", "cvX5"}});
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
    EXPECT_EQ(jobs[0].value("body").toString(),
              "device=cvX5&sn=4294967295&type=precalibration&file=precalibration_cal7.zip");
}

TEST(Upload, EmptyAnswerCountsAndBecomesAnEmptyFileField) {
    Session session({"--empty-body", "upload"}, {{"sn", "7"}});
    ASSERT_TRUE(session.ready);
    QString answer = "unchanged";
    ASSERT_TRUE(session.server.uploadFile(session.data, answer)) << session.server.lastError();
    EXPECT_TRUE(answer.isEmpty());
    ASSERT_TRUE(session.server.pushJob(answer)) << session.server.lastError();
    ASSERT_EQ(session.site.jobs().size(), 1u);
    // The empty answer is a null string, which the form writes as a bare name.
    EXPECT_EQ(session.site.jobs()[0].value("body").toString(), "sn=7&file");
}

TEST(Upload, UnopenableFileSendsNothing) {
    Session session;
    ASSERT_TRUE(session.ready);
    QString answer = "unchanged";
    EXPECT_FALSE(session.server.uploadFile("/nonexistent/x.zip", answer));
    EXPECT_EQ(session.server.lastError(), "Could not open file '/nonexistent/x.zip'");
    EXPECT_EQ(answer, "unchanged");
    EXPECT_TRUE(session.site.uploads().empty());
}

struct JobCase {
    const char* name;
    Fields fields;
    QString file;
    Pairs received; // decoded as a form, in the order received
};

const JobCase jobCases[] = {
    {"OnlyFileWhenNoFields", {}, "a.zip", {{"file", "a.zip"}}},
    {"KeyOrderWithFileLast",
     {{"user", "u"},
      {"type", "AVT"},
      {"sn", "0"},
      {"report", "yes"},
      {"email", ""},
      {"device", "c"}},
     "",
     {{"device", "c"},
      {"email", ""},
      {"report", "yes"},
      {"sn", "0"},
      {"type", "AVT"},
      {"user", "u"},
      {"file", ""}}},
    {"ValuesEncodedAsUtf8",
     {{"user", "Jörg Müller & Co=1"}},
     "Messung €.zip",
     {{"user", "Jörg Müller & Co=1"}, {"file", "Messung €.zip"}}},
};

class JobFields : public testing::TestWithParam<JobCase> {};

TEST_P(JobFields, ArriveInKeyOrderWithFileLast) {
    Session session({}, GetParam().fields);
    ASSERT_TRUE(session.ready);
    ASSERT_TRUE(session.server.pushJob(GetParam().file)) << session.server.lastError();
    const auto jobs = session.site.jobs();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(receivedFields(jobs[0]), GetParam().received);
}

INSTANTIATE_TEST_SUITE_P(Rows, JobFields, testing::ValuesIn(jobCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Failures: the reply's own error text reaches lastError().
struct FailureCase {
    const char* name;
    QStringList switches;
    bool upload;       // else the job request
    const char* error; // %1 stands for the request's URL
    enum { Running, Stopped, NoServerElement } target = Running;
};

const FailureCase failureCases[] = {
    {"UploadNotFound",
     {"--status", "upload=404"},
     true,
     "Error transferring %1 - server replied: Not Found"},
    {"UploadServerError",
     {"--status", "upload=500"},
     true,
     "Error transferring %1 - server replied: Internal Server Error"},
    {"JobForbidden",
     {"--status", "job=403"},
     false,
     "Error transferring %1 - server replied: Forbidden"},
    {"UploadClosedWithoutAnswer", {"--close", "upload"}, true, "Connection closed"},
    {"JobClosedWithoutAnswer", {"--close", "job"}, false, "Connection closed"},
    {"UploadRefused", {}, true, "Connection refused", FailureCase::Stopped},
    {"JobRefused", {}, false, "Connection refused", FailureCase::Stopped},
    {"UploadWithoutServerElement",
     {},
     true,
     "Protocol \"\" is unknown",
     FailureCase::NoServerElement},
    {"JobWithoutServerElement",
     {},
     false,
     "Protocol \"\" is unknown",
     FailureCase::NoServerElement},
};

class RequestFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(RequestFailure, GivesTheReplysErrorText) {
    const FailureCase& row = GetParam();
    Session session(row.switches, {}, row.target != FailureCase::NoServerElement);
    ASSERT_TRUE(session.ready);
    if (row.target == FailureCase::Stopped)
        session.site.stop();
    ServerInteractor& server = session.server;
    QString answer;
    EXPECT_FALSE(row.upload ? server.uploadFile(session.data, answer) : server.pushJob("x"));
    const QString url =
        QString("http://%1/%2")
            .arg(session.site.host(), row.upload ? "uploadFile.php" : "pushJob.php");
    EXPECT_EQ(server.lastError(), QString(row.error).replace("%1", url).toStdString());
}

INSTANTIATE_TEST_SUITE_P(Rows, RequestFailure, testing::ValuesIn(failureCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(FinishedSlot, IsReachableThroughTheMetaObject) {
    ServerInteractor server({});
    const int index = server.metaObject()->indexOfSlot("fileUploadFinished(QNetworkReply*)");
    ASSERT_GE(index, 0);
    const QMetaMethod slot = server.metaObject()->method(index);
    EXPECT_EQ(slot.access(), QMetaMethod::Protected);
    EXPECT_EQ(slot.parameterNames(), QList<QByteArray>{"reply"});
}

} // namespace
