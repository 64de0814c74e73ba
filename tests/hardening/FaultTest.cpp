// Faults during an upload: each gives its exact result and error list, and the data stays
// somewhere (the source, the temporary folder, the shared folder or the server), never half
// delivered. Each case runs this executable as the host, copied into a folder of the case beside
// its config.xml, with TMPDIR inside the case, so that the host can list its temporary folders
// before the library unloads and removes them. Root ignores file permissions: where they must
// bite, the host gives up root before it touches the library.
#include "ProcessingSite.h"
#include "UploadHost.h"
#include "dataExchange.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;

// ------------------------------------------------------------------------------------------------
// The host: argv = --host <user> <source> [dev=N] [dt=N] [loc=N]; prints result=, kept= (the
// files of each temporary folder) and errors=, the error list last.

QString keptInTemporaryFolders() {
    const QDir tmp(qEnvironmentVariable("TMPDIR"));
    QStringList folders;
    for (const QString& folder : tmp.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        folders << "tmp*:" +
                       QDir(tmp.filePath(folder)).entryList(QDir::Files, QDir::Name).join(',');
    return folders.join(' ');
}

bool becomeUser(const std::string& user) {
    if (user == "nobody") {
        if (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0 ||
            setresuid(nobody, nobody, nobody) != 0)
            return false;
    } else if (user == "effective-nobody") {
        // Real user root, effective user nobody: access() answers for root, open() for nobody,
        // which opens the gap between listing a folder's readable files and reading them.
        if (setegid(nobody) != 0 || seteuid(nobody) != 0)
            return false;
    }
    // Changed credentials make the process undumpable, which would keep LeakSanitizer from
    // inspecting it at exit and hide /proc/self/exe, where Qt finds the application folder.
    return prctl(PR_SET_DUMPABLE, 1) == 0;
}

int runHost(const std::string& user, const char* source, char** options, int count) {
    if (!becomeUser(user))
        return 3;
    // Qt refuses to make its application object while real and effective users differ.
    QCoreApplication::setSetuidAllowed(true);
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    dataExchangeSetInt32Option(handle, "Device type", 0);
    dataExchangeSetInt32Option(handle, "Data type", Precalibration);
    for (int n = 0; n < count; ++n) {
        const int value = std::atoi(std::strchr(options[n], '=') + 1);
        if (std::strncmp(options[n], "dt=", 3) == 0)
            dataExchangeSetInt32Option(handle, "Data type", value);
        else if (std::strncmp(options[n], "loc=", 4) == 0)
            dataExchangeSetUint32Option(handle, "Location", uint32_t(value));
    }
    char name[512] = "";
    static char errors[65536];
    const int32_t result = dataExchangeUploadData(handle, source, sizeof name, name, nullptr);
    dataExchangeGetLastErrors(handle, sizeof errors, errors);
    std::printf("result=%d\nkept=%s\nerrors=%s", int(result),
                keptInTemporaryFolders().toUtf8().constData(), errors);
    if (user == "effective-nobody" && (seteuid(0) != 0 || setegid(0) != 0))
        return 3;
    dataExchangeClose(&handle);
    return 0;
}

// ------------------------------------------------------------------------------------------------
// The cases.

enum class User { Root, Nobody, EffectiveNobody };

enum Arrange : unsigned {
    ShareWritable = 1,
    ShareReadOnly = 2,
    BigFile = 4,    // 8 MiB of noise in cal7: the body is still being sent when the peer drops
    LockedFile = 8, // cal7/b.csv mode 000
    LockedConfig = 16,
    Fifo = 32,     // data/fifo
    LongName = 64, // data/<longName>
};

struct Case {
    const char* what;
    QString source;      // in the case's data folder, which holds cal7/a.csv and cal7/b.csv
    QStringList options; // beside Device type 0 and Data type 0 (precalibration)
    unsigned arrange;
    const char* site; // nullptr: none; "drop": a peer that drops the connection; else switches
    User user;
    int result;
    QString errors;        // {tmp} {stamp} {share} {site} {app} {data} stand for the case's values
    QString kept;          // files in the temporary folders while the host still ran
    QString onServer = {}; // entries of the archive the site stored; "": nothing may arrive
    QString warning = {};  // expected on Qt's warning channel
};

// Accepts connections, reads a little of each and closes it with the rest unread.
const char* dropperScript = R"(
import os, socket, sys, threading
threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
server = socket.socket()
server.bind(("127.0.0.1", 0))
server.listen(8)
print(server.getsockname()[1], flush=True)
while True:
    connection, _ = server.accept()
    connection.recv(65536)
    connection.close()
)";

// "<stamp>_logFile_" and this name fit into a file name of 255 bytes; with ".info" they do not.
QString longName() {
    return QString(221, 'n') + ".csv";
}

QByteArray noise(int size) {
    QByteArray bytes(size, '\0');
    quint32 state = 2463534242u;
    for (char& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = char(state);
    }
    return bytes;
}

// Paths, kinds and contents below folder: what "the source is untouched" compares.
QStringList fingerprint(const QString& folder) {
    QStringList lines;
    QDirIterator it(folder, QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        const QByteArray content = info.isFile() ? dxtest::readFile(info.filePath()) : "";
        lines << info.filePath() +
                     (info.isDir() ? "/"
                      : info.isFile()
                          ? " " +
                                QCryptographicHash::hash(content, QCryptographicHash::Sha1).toHex()
                          : " special");
    }
    lines.sort();
    return lines;
}

QStringList archiveEntries(const QString& path) {
    QProcess python;
    python.start(DX_PYTHON, {DX_SOURCE_DIR "/tests/support/zipinfo.py", path});
    python.waitForFinished();
    QStringList names;
    for (const auto& entry : QJsonDocument::fromJson(python.readAllStandardOutput())
                                 .object()
                                 .value("entries")
                                 .toArray())
        names << entry.toObject().value("name").toString();
    names.sort();
    return names;
}

// The template as an anchored pattern: {tmp} and {stamp} match any temporary folder and time
// stamp, the other placeholders their literal values.
QRegularExpression pattern(const QString& text, const QMap<QString, QString>& literals) {
    auto placeholder = [](const QString& key) {
        return QRegularExpression::escape("{" + key + "}");
    };
    QString regex = QRegularExpression::escape(text);
    for (auto it = literals.cbegin(); it != literals.cend(); ++it)
        regex.replace(placeholder(it.key()), QRegularExpression::escape(it.value()));
    regex.replace(placeholder("tmp"), QRegularExpression::escape(literals["tmpdir"]) + "/tmp\\w+");
    regex.replace(placeholder("stamp"), "\\d{4}-\\d\\d-\\d\\d_\\d\\d-\\d\\d-\\d\\d");
    return QRegularExpression(QRegularExpression::anchoredPattern(regex));
}

// Whether every existing folder on the way to path lets others through.
bool reachableByOthers(QString path) {
    for (; path.size() > 1; path = QFileInfo(path).path())
        if (QFileInfo::exists(path) && !(QFileInfo(path).permissions() & QFile::ExeOther))
            return false;
    return true;
}

void runCase(const Case& c) {
    const bool root = geteuid() == 0;
    if (c.user == User::EffectiveNobody && !root) {
        std::printf("skipped without root: %s\n", c.what);
        return;
    }
    if ((c.arrange & (ShareWritable | ShareReadOnly)) && c.user != User::Root && root &&
        !reachableByOthers(DX_SHARE_ROOT)) {
        std::printf("skipped, the build folder is closed to other users: %s\n", c.what);
        return;
    }
    dxtest::clearShareRoot();
    QTemporaryDir work;
    const QString app = work.filePath("app"), tmp = work.filePath("tmp"),
                  data = work.filePath("data");
    const QString share = DX_SHARE_ROOT "/measurement/processing/cvX/" +
                          QString(c.options.contains("dt=6") ? "logFile" : "precalibration");
    ASSERT_TRUE(dxtest::writeFile(data + "/cal7/a.csv", "1;2\n"));
    ASSERT_TRUE(dxtest::writeFile(data + "/cal7/b.csv", "3;4\n"));
    if (c.arrange & BigFile) {
        ASSERT_TRUE(dxtest::writeFile(data + "/cal7/noise.bin", noise(8 << 20)));
    }
    if (c.arrange & LongName) {
        ASSERT_TRUE(dxtest::writeFile(data + "/" + longName(), "5;6\n"));
    }
    if (c.arrange & Fifo) {
        ASSERT_EQ(mkfifo(QFile::encodeName(data + "/fifo"), 0644), 0);
    }
    ASSERT_TRUE(QDir().mkpath(app) && QDir().mkpath(tmp));
    if (c.arrange & (ShareWritable | ShareReadOnly)) {
        ASSERT_TRUE(QDir().mkpath(share));
    }
    // Unprivileged hosts reach into the case's folders.
    chmod(QFile::encodeName(work.path()), 0755);
    chmod(QFile::encodeName(tmp), 0777);
    if (c.arrange & ShareReadOnly)
        chmod(QFile::encodeName(share), 0555);
    const QStringList before = fingerprint(data);

    std::unique_ptr<dxtest::ProcessingSite> site;
    QProcess dropper;
    QString siteHost = "127.0.0.1:1";
    if (c.site != nullptr && QString(c.site) == "drop") {
        dropper.start(DX_PYTHON, {"-c", dropperScript});
        ASSERT_TRUE(dropper.waitForReadyRead(60000));
        siteHost = "127.0.0.1:" + QString(dropper.readLine()).trimmed();
    } else if (c.site != nullptr) {
        site = std::make_unique<dxtest::ProcessingSite>(
            QString(c.site).split(' ', Qt::SkipEmptyParts));
        ASSERT_TRUE(site->isRunning());
        siteHost = site->host();
    }
    dxtest::writeServerConfig(app, siteHost, "http");
    if (c.arrange & LockedConfig)
        chmod(QFile::encodeName(app + "/config.xml"), 0);
    if (c.arrange & LockedFile)
        chmod(QFile::encodeName(data + "/cal7/b.csv"), 0);

    const QString host = app + "/host";
    ASSERT_TRUE(QFile::copy(QFile::symLinkTarget("/proc/self/exe"), host));
    const char* user = !root || c.user == User::Root ? "self"
                       : c.user == User::Nobody      ? "nobody"
                                                     : "effective-nobody";
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TMPDIR", tmp);
    process.setProcessEnvironment(environment);
    process.start(host, QStringList{"--host", user, data + "/" + c.source} + c.options);
    ASSERT_TRUE(process.waitForFinished(300000));
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    const QString warnings = QString::fromUtf8(process.readAllStandardError());
    ASSERT_EQ(process.exitCode(), 0) << warnings.toStdString();

    EXPECT_EQ(output.section('\n', 0, 0).toStdString(), "result=" + std::to_string(c.result));
    const QMap<QString, QString> literals{
        {"tmpdir", tmp}, {"share", share}, {"site", siteHost}, {"app", app}, {"data", data}};
    const QString errors = output.section("\nerrors=", 1);
    EXPECT_TRUE(
        pattern(c.errors.isEmpty() ? "" : c.errors + "\n", literals).match(errors).hasMatch())
        << errors.toStdString();
    EXPECT_EQ(output.section('\n', 1, 1).toStdString(), ("kept=" + c.kept).toStdString());
    if (!c.warning.isEmpty()) {
        EXPECT_TRUE(warnings.contains(QString(c.warning).replace("{data}", data)))
            << warnings.toStdString();
    }
    if (site && c.onServer.isEmpty()) {
        EXPECT_TRUE(site->uploads().empty());
    } else if (site) {
        EXPECT_EQ(
            archiveEntries(site->storedFile("precalibration_cal7.zip")).join(',').toStdString(),
            c.onServer.toStdString());
    }
    chmod(QFile::encodeName(data + "/cal7/b.csv"), 0644);
    EXPECT_EQ(fingerprint(data), before);
    // Nothing half delivered: no item without its side file, and no side file at all here.
    EXPECT_EQ(QDir(share).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    // Unloading the library removed the temporary folders.
    EXPECT_EQ(QDir(tmp).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    dxtest::clearShareRoot();
    dropper.closeWriteChannel(); // the dropper ends with its standard input
    dropper.waitForFinished();
}

TEST(Faults, EachKeepsTheDataAndSaysWhatHappened) {
    const QString zip = "tmp*:precalibration_cal7.zip";
    const QString unknown = "Unknown error handling data";
    // clang-format off
    const Case cases[] = {
        {"shared folder read-only: the move fails", "cal7/a.csv", {"dt=6", "loc=1"},
         ShareReadOnly, nullptr, User::Nobody, DataHandlingFailed,
         "Cannot move file '{tmp}/logFile_a.csv' to '{share}/{stamp}_logFile_a.csv'",
         "tmp*:logFile_a.csv"},
        // The item is taken out of the share again; the source is then the only copy.
        {".info not creatable", longName(), {"dt=6", "loc=1"}, ShareWritable | LongName, nullptr,
         User::Root, DataHandlingFailed,
         "Could not create file '{share}/{stamp}_logFile_" + longName() + ".info'", "tmp*:"},
        {"server closes the connection instead of answering", "cal7", {"loc=2"}, 0,
         "--close upload", User::Root, DataHandlingFailed, unknown, zip, "a.csv,b.csv"},
        {"server drops the connection in the middle of the body", "cal7", {"loc=2"}, BigFile,
         "drop", User::Root, DataHandlingFailed, unknown, zip},
        {"server answers 500 to the upload", "cal7", {"loc=2"}, 0, "--status upload=500",
         User::Root, DataHandlingFailed, unknown, zip, "a.csv,b.csv"},
        {"server answers 500 to the job", "cal7", {"loc=2"}, 0, "--status job=500", User::Root,
         DataHandlingFailed,
         "Error transferring http://{site}/pushJob.php - server replied: Internal Server Error",
         zip, "a.csv,b.csv"},
        {"config.xml unreadable", "cal7", {"loc=2"}, LockedConfig, "", User::Nobody,
         DataHandlingFailed, "Cannot open file '{app}/config.xml'", zip},
        // The check found something; packing finds neither a file nor a folder, as when the
        // source vanished in between. A FIFO makes that moment last.
        {"source gone between check and packing", "fifo", {"dt=6", "loc=1"},
         ShareWritable | Fifo, nullptr, User::Root, DataHandlingFailed, unknown, "tmp*:"},
        {"single source file unreadable", "cal7/b.csv", {"dt=6", "loc=1"},
         ShareWritable | LockedFile, nullptr, User::Nobody, DataHandlingFailed, unknown, "tmp*:"},
        {"file readable when listed, unreadable when opened", "cal7", {"loc=1"}, LockedFile,
         nullptr, User::EffectiveNobody, DataHandlingFailed, unknown, zip, "",
         "Couldn't open {data}/cal7/b.csv"},
        // Listing a folder keeps to its readable files: an unreadable one is left out, and the
        // upload succeeds without it.
        {"unreadable file in a folder", "cal7", {"loc=2"}, LockedFile, "", User::Nobody, Success,
         "", zip, "a.csv"},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        runCase(c);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && std::strcmp(argv[1], "--host") == 0)
        return runHost(argv[2], argv[3], argv + 4, argc - 4);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
