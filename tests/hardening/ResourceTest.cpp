// Resource use over many uploads in one process: 300 cycles of open, configure, upload (shared
// folder, one small file each) and close. Descriptors come back to their starting count;
// temporary folders only accumulate, one per upload, until the library unloads and removes them
// all. The cycles run in a child process with TMPDIR inside the test, so that the unload can be
// watched; in the sanitizer build LeakSanitizer examines that child when it exits.
#include "ProcessingSite.h"
#include "UploadHost.h"
#include "dataExchange.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>

namespace {

constexpr int cycles = 300;

int entries(const char* folder) {
    DIR* listing = opendir(folder);
    if (listing == nullptr)
        return -1;
    int count = 0;
    while (const dirent* entry = readdir(listing))
        count += entry->d_name[0] != '.';
    closedir(listing);
    return count;
}

// The listing's own descriptor is counted each time alike.
int openDescriptors() {
    return entries("/proc/self/fd");
}

// The child: argv = --cycles <data folder holding f1.csv ... f300.csv>.
int runCycles(const std::string& data) {
    const char* tmp = std::getenv("TMPDIR");
    const int atStart = openDescriptors();
    int afterFirst = 0, failures = 0, miscounted = 0;
    for (int n = 1; n <= cycles; ++n) {
        dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
        dataExchangeSetInt32Option(handle, "Device type", 0);
        dataExchangeSetInt32Option(handle, "Data type", LogFile);
        dataExchangeSetUint32Option(handle, "Location", SharedFolder);
        // Distinct names: two items of one name within a second would meet in the share.
        const std::string file = data + "/f" + std::to_string(n) + ".csv";
        failures += dataExchangeUploadData(handle, file.c_str(), 0, nullptr, nullptr) != Success;
        dataExchangeClose(&handle);
        if (n == 1)
            afterFirst = openDescriptors();
        miscounted += entries(tmp) != n;
    }
    // Descriptors at the start, after the first cycle and after the last.
    std::printf("failures=%d\nmiscounted=%d\ndescriptors=%d %d %d\n", failures, miscounted, atStart,
                afterFirst, openDescriptors());
    return 0;
}

TEST(Resources, ThreeHundredCyclesInOneProcess) {
    QTemporaryDir data, tmp;
    for (int n = 1; n <= cycles; ++n)
        ASSERT_TRUE(dxtest::writeFile(data.filePath(QString("f%1.csv").arg(n)), "1;2\n"));
    const QString share = DX_SHARE_ROOT "/measurement/processing/cvX/logFile";
    dxtest::clearShareRoot();
    ASSERT_TRUE(QDir().mkpath(share));

    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TMPDIR", tmp.path());
    child.setProcessEnvironment(environment);
    child.start(QFile::symLinkTarget("/proc/self/exe"), {"--cycles", data.path()});
    ASSERT_TRUE(child.waitForFinished(540000));
    // A leak found by LeakSanitizer makes the exit status non-zero.
    ASSERT_EQ(child.exitCode(), 0) << child.readAllStandardError().toStdString();
    const QStringList lines = QString(child.readAllStandardOutput()).split('\n');
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines[0].toStdString(), "failures=0");
    // Each upload leaves its own (emptied) temporary folder, and none goes before the unload.
    EXPECT_EQ(lines[1].toStdString(), "miscounted=0");
    const QStringList descriptors = lines[2].section('=', 1).split(' ');
    ASSERT_EQ(descriptors.size(), 3);
    // Nothing accumulates; the first application object adds one descriptor for the rest of the
    // process: GLib's default main context, which Qt's event dispatcher creates on first use.
    EXPECT_EQ(descriptors[2].toInt(), descriptors[1].toInt()) << lines[2].toStdString();
    EXPECT_LE(descriptors[1].toInt(), descriptors[0].toInt() + 1) << lines[2].toStdString();
    EXPECT_EQ(QDir(tmp.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    EXPECT_EQ(QDir(share).entryList(QDir::Files).size(), 2 * cycles); // items and side files
    dxtest::clearShareRoot();
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--cycles") == 0)
        return runCycles(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
