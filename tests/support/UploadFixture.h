// What the tests of uploads share: files, archives read back by Python's zipfile, the upload
// export called in this process, and a host with a site and a config: the upload host program
// copied into a folder of the test beside its config.xml (the library looks for the file beside
// the calling application), run with its own TMPDIR so that the unload can be watched.
#pragma once

#include "dataExchange.h"

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace dxtest {

bool writeFile(const QString& path, const QByteArray& content); // makes missing folders
QByteArray readFile(const QString& path);
QByteArray randomBytes(int size); // data that does not deflate
// config.xml in folder; the Port element is deliberately wrong: only the Name may carry it.
QString writeServerConfig(const QString& folder, const QString& name,
                          const QString& protocol = "http", const QString& extra = {});
// {"entries": [{name, method, utf8, size, data}], "bad": first bad entry or null}
QJsonObject readZip(const QString& path);
QStringList zipNames(const QString& path); // sorted
QString sharedFolder(const QString& device, const QString& type);
// Empties the share root the library was built with, but only when it lies inside the build
// tree: a build left on a real deployment's share must never have it wiped by a test.
void clearShareRoot();

struct Outcome {
    int result = -999;
    QString name, stored; // the delivered name; the name the server stored (the host only)
    uint32_t location = 0;
    QString errors;
    std::vector<std::array<quint64, 3>> progress; // stage, done, total of each callback
    QMap<QString, QString> values;                // every key=value line; repeated keys joined
};

Outcome upload(dataExchangeLibraryImp* handle, const QString& path);

class UploadFixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Options as name=value: dev, dt, loc, sn, user, report, progress, cancel=STAGE:CALL, stall,
    // proxy, namesize, verified. As user nobody when this process is root; without SSL when asked.
    Outcome runHost(const QString& source, const QStringList& options, bool asNobody = false,
                    bool withoutSsl = false);

    // Runs the host through this command when set, e.g. {"unshare", "--net"}.
    QStringList hostWrapper;
    QTemporaryDir work;
    // app/ holds the host, data/cal7 two small files, tmp/ the host's temporary folders.
    const QString app = work.filePath("app"), data = work.filePath("data"),
                  tmp = work.filePath("tmp");
    dataExchangeLibraryImp* handle = nullptr;
};

} // namespace dxtest
