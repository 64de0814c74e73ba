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
    // --watch-stdin: a test that dies takes its site with it.
    process.start(DX_PYTHON, QStringList{DX_SOURCE_DIR "/tools/processing-site/processing_site.py",
                                         "--root", folder.path(), "--quiet", "--watch-stdin"} +
                                 switches);
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
