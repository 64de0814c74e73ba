// Several handles uploading at the same time, one thread each, half of them through the shared
// folder and half through the server, packing on one, two or every core: every thread gets its own
// result, every item arrives whole under its own name, every log line whole to one callback.
// scripts/test.sh also runs this under ThreadSanitizer.
#include "ProcessingSite.h"
#include "System.h"
#include "UploadFixture.h"
#include "dataExchangeExt.h"

#include <QDir>
#include <QJsonArray>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <thread>

namespace {

constexpr int threadCount = 6;
constexpr int uploadsPerThread = 3;

TEST(Concurrency, HandlesOnSeveralThreadsUploadAtOnce) {
    dxtest::ProcessingSite site;
    ASSERT_TRUE(site.isRunning());
    ASSERT_FALSE(dxtest::writeServerConfig(DX_APPLICATION_DIR, site.host()).isEmpty());
    const QString share = dxtest::sharedFolder("cvX", "precalibration");
    ASSERT_TRUE(QDir().mkpath(share));

    // Each upload sends a folder holding one file whose name and content are its own.
    QTemporaryDir data;
    const auto label = [](int t, int u) { return QString("t%1u%2").arg(t).arg(u); };
    const auto content = [](int t, int u) {
        return QByteArray::number(t * 1000 + u).repeated(500);
    };
    for (int t = 0; t < threadCount; ++t)
        for (int u = 0; u < uploadsPerThread; ++u)
            ASSERT_TRUE(dxtest::writeFile(data.filePath(label(t, u) + "/" + label(t, u) + ".csv"),
                                          content(t, u)));

    // The first handle creates the application object the others borrow: opening handles while
    // there is none must not overlap.
    dataExchangeLibraryImp* first = dataExchangeInit(nullptr, 0, nullptr);
    const size_t foldersBefore = measurement::System::instance().temporaryFolders.size();
    std::array<std::array<dxtest::Outcome, uploadsPerThread>, threadCount> results;
    // Unguarded: the library makes the calls one at a time.
    static std::vector<std::string> lines;
    dataExchangeSetLogCallback([](uint32_t, const char* line, void*) { lines.emplace_back(line); },
                               nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t)
        threads.emplace_back([&, t] {
            dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
            dataExchangeSetInt32Option(handle, "Device type", 0);
            dataExchangeSetInt32Option(handle, "Data type", Precalibration);
            dataExchangeSetUint32Option(handle, "Location", t % 2 ? Server : SharedFolder);
            dataExchangeSetPackingThreads(handle, uint32_t(t % 3)); // every core, one, two
            for (int u = 0; u < uploadsPerThread; ++u)
                results[t][u] = dxtest::upload(handle, data.filePath(label(t, u)));
            dataExchangeClose(&handle);
        });
    for (std::thread& thread : threads)
        thread.join();
    dataExchangeClose(&first);
    dataExchangeSetLogCallback(nullptr, nullptr);

    // Each item whole, under its own name, in its place.
    for (int t = 0; t < threadCount; ++t) {
        for (int u = 0; u < uploadsPerThread; ++u) {
            const dxtest::Outcome& upload = results[t][u];
            ASSERT_EQ(upload.result, Success) << upload.errors.toStdString();
            const QString path = t % 2 ? site.storedFile(upload.name) : share + "/" + upload.name;
            EXPECT_TRUE(upload.name.endsWith("precalibration_" + label(t, u) + ".zip"));
            EXPECT_EQ(std::count(lines.begin(), lines.end(),
                                 "Adding file " + label(t, u).toStdString() + ".csv"),
                      1);
            EXPECT_EQ(dxtest::readZip(path)["entries"].toArray()[0].toObject()["data"].toString(),
                      content(t, u).toHex());
        }
    }
    // One temporary folder per upload, none lost to a concurrent append.
    const auto& folders = measurement::System::instance().temporaryFolders;
    EXPECT_EQ(folders.size(), foldersBefore + threadCount * uploadsPerThread);
    EXPECT_EQ(std::set<std::string>(folders.begin(), folders.end()).size(), folders.size());
    dxtest::clearShareRoot();
}

} // namespace
