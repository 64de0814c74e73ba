#include "UploadFixture.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <sys/stat.h>
#include <unistd.h>

namespace dxtest {

bool writeFile(const QString& path, const QByteArray& content) {
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(content) == content.size();
}

QByteArray randomBytes(int size) {
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QString writeServerConfig(const QString& folder, const QString& name, const QString& protocol,
                          const QString& extra) {
    const QString path = folder + "/config.xml";
    const QString xml = "<Configuration><Server><Name>%1</Name><Protocol>%2</Protocol><Port>9"
                        "</Port><Timeout>30</Timeout></Server>%3</Configuration>\n";
    return writeFile(path, xml.arg(name, protocol, extra).toUtf8()) ? path : QString();
}

QJsonObject readZip(const QString& path) {
    QProcess python;
    python.start(DX_PYTHON, {DX_SOURCE_DIR "/tests/support/zipinfo.py", path});
    python.waitForFinished();
    return QJsonDocument::fromJson(python.readAllStandardOutput()).object();
}

QStringList zipNames(const QString& path) {
    QStringList names;
    for (const auto& entry : readZip(path).value("entries").toArray())
        names << entry.toObject().value("name").toString();
    names.sort();
    return names;
}

QString sharedFolder(const QString& device, const QString& type) {
    return DX_SHARE_ROOT "/measurement/processing/" + device + "/" + type;
}

void clearShareRoot() {
    const QString root = QDir::cleanPath(DX_SHARE_ROOT);
    if (root.startsWith(QDir::cleanPath(DX_BINARY_DIR) + "/"))
        QDir(root).removeRecursively();
}

Outcome upload(dataExchangeLibraryImp* handle, const QString& path) {
    Outcome outcome;
    char name[256] = "";
    outcome.result = dataExchangeUploadData(handle, path.toUtf8().constData(), sizeof name, name,
                                            &outcome.location);
    outcome.name = QString::fromUtf8(name);
    char errors[4096] = "";
    dataExchangeGetLastErrors(handle, sizeof errors, errors);
    outcome.errors = QString::fromUtf8(errors);
    return outcome;
}

void UploadFixture::SetUp() {
    handle = dataExchangeInit(nullptr, 0, nullptr);
    ASSERT_TRUE(writeFile(data + "/cal7/a.csv", "1;2\n") &&
                writeFile(data + "/cal7/b.csv", "3;4\n"));
    ASSERT_TRUE(QDir().mkpath(app) && QDir().mkpath(tmp));
    // A host that runs as another user reaches into the test's folders.
    chmod(QFile::encodeName(work.path()), 0755);
    chmod(QFile::encodeName(tmp), 0777);
}

void UploadFixture::TearDown() {
    dataExchangeClose(&handle);
    clearShareRoot();
}

Outcome UploadFixture::runHost(const QString& source, const QStringList& options, bool asNobody,
                               bool withoutSsl) {
    const QString host = app + "/uploadHost";
    QFile::remove(host);
    QFile::copy(DX_UPLOAD_HOST, host);
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("TMPDIR", tmp);
    if (withoutSsl) { // empty shared objects under the names Qt loads: no SSL then
        environment.insert("LD_LIBRARY_PATH", DX_SSL_STUBS);
        environment.insert("QT_LOGGING_RULES", "qt.network.ssl.warning=false");
    }
    process.setProcessEnvironment(environment);
    QStringList command{host, source};
    if (asNobody && geteuid() == 0)
        command =
            QStringList{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"} + command;
    command = hostWrapper + command;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QString program = command.takeFirst();
    process.start(program, command + options);
    process.waitForFinished(300000);
    Outcome outcome;
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    // The error list comes last and keeps its own line feeds.
    outcome.errors = output.section("\nerrors=", 1);
    for (const QString& line : output.section("\nerrors=", 0, 0).split('\n', Qt::SkipEmptyParts)) {
        const QString key = line.section('=', 0, 0);
        outcome.values[key] += (outcome.values.contains(key) ? "\n" : "") + line.section('=', 1);
    }
    outcome.result = outcome.values.value("result", "-999").toInt();
    outcome.name = outcome.values["name"];
    outcome.stored = outcome.values["stored"];
    outcome.location = outcome.values["location"].toUInt();
    for (const QString& line : outcome.values["progress"].split('\n', Qt::SkipEmptyParts)) {
        const QStringList n = line.split(' ');
        outcome.progress.push_back({n[0].toULongLong(), n[1].toULongLong(), n[2].toULongLong()});
    }
    return outcome;
}

} // namespace dxtest
