// Several handles uploading at the same time, one thread each, half of them through the shared
// folder and half through the server: every thread gets its own result, and every item arrives
// whole under its own name. scripts/test.sh also runs this under ThreadSanitizer.
#include "ProcessingSite.h"
#include "System.h"
#include "UploadHost.h"
#include "dataExchange.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int threadCount = 6;
constexpr int uploadsPerThread = 3;

struct Upload {
    int32_t result = -1;
    uint32_t location = 0;
    QString name;
    QString errors;
};

// "entry=hex of its data" for each entry, read by Python's zipfile.
QStringList archive(const QString& path) {
    QProcess python;
    python.start(DX_PYTHON, {DX_SOURCE_DIR "/tests/support/zipinfo.py", path});
    python.waitForFinished();
    QStringList entries;
    for (const auto& entry : QJsonDocument::fromJson(python.readAllStandardOutput())
                                 .object()
                                 .value("entries")
                                 .toArray())
        entries << entry.toObject().value("name").toString() + "=" +
                       entry.toObject().value("data").toString();
    return entries;
}

TEST(Concurrency, HandlesOnSeveralThreadsUploadAtOnce) {
    dxtest::ProcessingSite site;
    ASSERT_TRUE(site.isRunning());
    ASSERT_FALSE(dxtest::writeServerConfig(DX_APPLICATION_DIR, site.host(), "http").isEmpty());
    const QString share = DX_SHARE_ROOT "/measurement/processing/cvX/precalibration";
    ASSERT_TRUE(QDir().mkpath(share));

    // Each upload sends a folder holding one file whose name and content are its own.
    QTemporaryDir data;
    auto label = [](int t, int u) { return QString("t%1u%2").arg(t).arg(u); };
    auto content = [](int t, int u) { return QByteArray::number(t * 1000 + u).repeated(500); };
    std::vector<std::array<QByteArray, uploadsPerThread>> sources(threadCount);
    for (int t = 0; t < threadCount; ++t)
        for (int u = 0; u < uploadsPerThread; ++u) {
            const QString folder = data.filePath(label(t, u));
            ASSERT_TRUE(dxtest::writeFile(folder + "/" + label(t, u) + ".csv", content(t, u)));
            sources[t][u] = folder.toUtf8();
        }

    // The first handle creates the application object the others borrow: opening handles while
    // there is none must not overlap.
    dataExchangeLibraryImp* first = dataExchangeInit(nullptr, 0, nullptr);
    const size_t foldersBefore = measurement::System::instance().temporaryFolders.size();
    std::vector<std::array<Upload, uploadsPerThread>> results(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t)
        threads.emplace_back([t, &sources, &results] {
            dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
            dataExchangeSetInt32Option(handle, "Device type", 0);
            dataExchangeSetInt32Option(handle, "Data type", Precalibration);
            dataExchangeSetUint64Option(handle, "Serial number", 100 + t);
            dataExchangeSetUint32Option(handle, "Location", t % 2 ? Server : SharedFolder);
            for (int u = 0; u < uploadsPerThread; ++u) {
                Upload& upload = results[t][u];
                char name[256] = "", errors[1024] = "";
                upload.result = dataExchangeUploadData(handle, sources[t][u].constData(),
                                                       sizeof name, name, &upload.location);
                dataExchangeGetLastErrors(handle, sizeof errors, errors);
                upload.name = name;
                upload.errors = errors;
            }
            dataExchangeClose(&handle);
        });
    for (std::thread& thread : threads)
        thread.join();
    dataExchangeClose(&first);

    std::set<QString> jobs;
    for (const QJsonObject& job : site.jobs()) {
        QStringList fields;
        for (const auto& field : job.value("fields").toArray())
            if (field.toArray()[0] == "sn" || field.toArray()[0] == "file")
                fields << field.toArray()[1].toString();
        jobs.insert(fields.join(' '));
    }
    for (int t = 0; t < threadCount; ++t) {
        for (int u = 0; u < uploadsPerThread; ++u) {
            const Upload& upload = results[t][u];
            SCOPED_TRACE(label(t, u).toStdString());
            ASSERT_EQ(upload.result, Success) << upload.errors.toStdString();
            const QString packed = "precalibration_" + label(t, u) + ".zip";
            const QStringList entries{label(t, u) + ".csv=" + content(t, u).toHex()};
            if (t % 2) {
                EXPECT_EQ(upload.location, uint32_t(Server));
                EXPECT_EQ(upload.name, packed);
                EXPECT_EQ(archive(site.storedFile(packed)), entries);
                EXPECT_EQ(jobs.count(QString("%1 %2").arg(100 + t).arg(packed)), 1u);
            } else {
                EXPECT_EQ(upload.location, uint32_t(SharedFolder));
                EXPECT_TRUE(upload.name.contains(QRegularExpression(
                    "^\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d_" + packed + "$")))
                    << upload.name.toStdString();
                EXPECT_EQ(archive(share + "/" + upload.name), entries);
                EXPECT_TRUE(dxtest::readFile(share + "/" + upload.name + ".info")
                                .startsWith("sn 0x" + QByteArray::number(100 + t, 16) + "\n"));
            }
        }
    }
    // One temporary folder per upload, none lost to a concurrent append.
    const auto& folders = measurement::System::instance().temporaryFolders;
    EXPECT_EQ(folders.size(), foldersBefore + threadCount * uploadsPerThread);
    EXPECT_EQ(std::set<std::string>(folders.begin(), folders.end()).size(), folders.size());
    dxtest::clearShareRoot();
}

} // namespace
