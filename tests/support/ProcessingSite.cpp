#include "ProcessingSite.h"

#include <QFile>
#include <QJsonDocument>

namespace dxtest {

namespace {
// Safety net only: the site prints its port within a fraction of a second.
constexpr int startLimitMs = 60000;
} // namespace

ProcessingSite::ProcessingSite(const QStringList& switches) {
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // --watch-stdin: a test that dies takes its site with it. "php" first: the PHP site.
    const bool php = switches.value(0) == "php";
    process.start(php ? "bash" : DX_PYTHON,
                  QStringList{php ? DX_SOURCE_DIR "/tools/processing-site/php/php-site.sh"
                                  : DX_SOURCE_DIR "/tools/processing-site/processing_site.py",
                              "--root", folder.path(), "--watch-stdin"} +
                      (php ? switches.mid(1) : QStringList{"--quiet"} + switches));
    if (!process.waitForStarted(startLimitMs))
        return;
    while (!process.canReadLine() && process.waitForReadyRead(startLimitMs)) {
    }
    boundPort = process.readLine().trimmed().toUShort();
}

std::vector<QJsonObject> ProcessingSite::records(const char* name) const {
    std::vector<QJsonObject> entries;
    QFile file(folder.filePath(name));
    if (!file.open(QIODevice::ReadOnly))
        return entries;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (!line.isEmpty())
            entries.push_back(QJsonDocument::fromJson(line).object());
    }
    return entries;
}

void ProcessingSite::stop() {
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(startLimitMs))
        process.kill();
    process.waitForFinished(startLimitMs);
}

} // namespace dxtest
