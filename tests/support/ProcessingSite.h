// The local processing site (tools/processing-site/processing_site.py) as a child process of a
// test, on its own port and in its own folder, plus the application object network tests need.
#pragma once

#include <QCoreApplication>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace dxtest {

class ProcessingSite {
public:
    // switches: extra command-line switches of the site, e.g. {"--status", "upload=500"}.
    explicit ProcessingSite(const QStringList& switches = {});
    ~ProcessingSite();
    ProcessingSite(const ProcessingSite&) = delete;
    ProcessingSite& operator=(const ProcessingSite&) = delete;

    bool isRunning() const { return boundPort != 0; }
    quint16 port() const { return boundPort; }
    QString host() const; // "127.0.0.1:PORT", as a config.xml Name
    QString storedFile(const QString& name) const;
    QString uploadsFile() const;
    QString jobsFile() const;

    // What the site recorded: one object per request, oldest first.
    std::vector<QJsonObject> uploads() const;
    std::vector<QJsonObject> jobs() const;

    void stop(); // SIGTERM to the child's pid, then wait for it

private:
    QTemporaryDir folder;
    QProcess process;
    quint16 boundPort = 0;
};

bool writeFile(const QString& path, const QByteArray& content); // makes missing folders
QByteArray readFile(const QString& path);

// Writes folder/config.xml for a server; returns its path. The port element is deliberately
// given separately: requests must take the port from name alone.
QString writeServerConfig(const QString& folder, const QString& name, const QString& protocol,
                          const QString& port = QStringLiteral("9"));

// Network tests need an application object for the event loop; the shared test main makes none.
class ApplicationEnvironment : public testing::Environment {
public:
    void SetUp() override;
    void TearDown() override;

private:
    int argc = 1;
    char name[24] = "dataExchangeTest";
    char* argv[2] = {name, nullptr};
    std::unique_ptr<QCoreApplication> application;
};

} // namespace dxtest
