// The local processing site (tools/processing-site/processing_site.py) as a child process of a
// test, on its own port and in its own folder.
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <vector>

namespace dxtest {

class ProcessingSite {
public:
    // switches: extra command-line switches of the site, e.g. {"--status", "upload=500"}.
    explicit ProcessingSite(const QStringList& switches = {});
    ~ProcessingSite() { stop(); }
    ProcessingSite(const ProcessingSite&) = delete;
    ProcessingSite& operator=(const ProcessingSite&) = delete;

    bool isRunning() const { return boundPort != 0; }
    QString host() const { return QStringLiteral("127.0.0.1:%1").arg(boundPort); }
    QString storedFile(const QString& name) const { return folder.filePath("storage/" + name); }
    // What the site recorded: one object per request, oldest first.
    std::vector<QJsonObject> uploads() const { return records("uploads.jsonl"); }
    std::vector<QJsonObject> jobs() const { return records("jobs.jsonl"); }
    // Every request the Python site saw, faulty or not: {"script", "fault"}.
    std::vector<QJsonObject> requests() const { return records("requests.jsonl"); }
    // The site's own folder (the PHP site keeps apache.pid there).
    QString file(const QString& name) const { return folder.filePath(name); }
    void stop();

private:
    std::vector<QJsonObject> records(const char* file) const;

    QTemporaryDir folder;
    QProcess process;
    quint16 boundPort = 0;
};

} // namespace dxtest
