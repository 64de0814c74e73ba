#include "ProcessingSite.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

namespace dxtest {

namespace {

// Safety net only: the site prints its port within a fraction of a second.
constexpr int startLimitMs = 60000;

std::vector<QJsonObject> readJsonLines(const QString& path) {
    std::vector<QJsonObject> entries;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (!line.isEmpty())
            entries.push_back(QJsonDocument::fromJson(line).object());
    }
    return entries;
}

} // namespace

ProcessingSite::ProcessingSite(const QStringList& switches) {
    const QString script =
        QStringLiteral(DX_SOURCE_DIR "/tools/processing-site/processing_site.py");
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // --watch-stdin: a test that dies takes its site with it.
    process.start(QStringLiteral(DX_PYTHON),
                  QStringList{script, QStringLiteral("--root"), folder.path(),
                              QStringLiteral("--quiet"), QStringLiteral("--watch-stdin")} +
                      switches);
    if (!process.waitForStarted(startLimitMs))
        return;
    while (!process.canReadLine() && process.waitForReadyRead(startLimitMs)) {
    }
    boundPort = process.readLine().trimmed().toUShort();
}

ProcessingSite::~ProcessingSite() {
    stop();
}

QString ProcessingSite::host() const {
    return QStringLiteral("127.0.0.1:%1").arg(boundPort);
}

QString ProcessingSite::storedFile(const QString& name) const {
    return folder.filePath(QStringLiteral("storage/") + name);
}

QString ProcessingSite::uploadsFile() const {
    return folder.filePath(QStringLiteral("uploads.jsonl"));
}

QString ProcessingSite::jobsFile() const {
    return folder.filePath(QStringLiteral("jobs.jsonl"));
}

std::vector<QJsonObject> ProcessingSite::uploads() const {
    return readJsonLines(uploadsFile());
}

std::vector<QJsonObject> ProcessingSite::jobs() const {
    return readJsonLines(jobsFile());
}

void ProcessingSite::stop() {
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate(); // SIGTERM to the child's pid
    if (!process.waitForFinished(startLimitMs))
        process.kill();
    process.waitForFinished(startLimitMs);
}

bool writeFile(const QString& path, const QByteArray& content) {
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) &&
           file.write(content) == content.size();
}

QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString writeServerConfig(const QString& folder, const QString& name, const QString& protocol,
                          const QString& port) {
    const QString path = QDir(folder).filePath(QStringLiteral("config.xml"));
    const QString xml = QStringLiteral("<Configuration><Server><Name>%1</Name><Protocol>%2"
                                       "</Protocol><Port>%3</Port><Timeout>30</Timeout></Server>"
                                       "</Configuration>\n")
                            .arg(name, protocol, port);
    return writeFile(path, xml.toUtf8()) ? path : QString();
}

void ApplicationEnvironment::SetUp() {
    application = std::make_unique<QCoreApplication>(argc, argv);
}

void ApplicationEnvironment::TearDown() {
    application.reset();
}

} // namespace dxtest
