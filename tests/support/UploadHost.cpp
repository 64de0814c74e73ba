#include "UploadHost.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <cstring>

namespace dxtest {

Outcome upload(dataExchangeLibraryImp* handle, const QString& path, size_t nameSize) {
    Outcome outcome;
    char name[256];
    std::memset(name, '#', sizeof name);
    const QByteArray utf8 = path.toUtf8();
    outcome.result =
        dataExchangeUploadData(handle, utf8.constData(), nameSize, name, &outcome.location);
    outcome.name = QString::fromUtf8(name, int(strnlen(name, nameSize)));
    char errors[4096] = "";
    dataExchangeGetLastErrors(handle, sizeof errors, errors);
    outcome.errors = QString::fromUtf8(errors);
    return outcome;
}

Outcome runUploadHost(const QString& folder, const QString& path, const QStringList& options,
                      const QString& tmp) {
    const QString host = folder + "/uploadHost";
    QFile::remove(host);
    QFile::copy(QStringLiteral(DX_UPLOAD_HOST), host);
    QProcess process;
    if (!tmp.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("TMPDIR", tmp);
        process.setProcessEnvironment(environment);
    }
    process.start(host, QStringList{path} + options);
    process.waitForFinished(120000);
    Outcome outcome;
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    // The error list comes last and keeps its own line feeds.
    outcome.errors = output.section("\nerrors=", 1);
    for (const QString& line : output.section("\nerrors=", 0, 0).split('\n')) {
        const QString value = line.section('=', 1);
        if (line.startsWith("result="))
            outcome.result = value.toInt();
        else if (line.startsWith("name="))
            outcome.name = value;
        else if (line.startsWith("location="))
            outcome.location = value.toUInt();
        else if (line.startsWith("progress=")) {
            const QStringList n = value.split(' ');
            outcome.progress.push_back(
                {n[0].toULongLong(), n[1].toULongLong(), n[2].toULongLong()});
        }
    }
    return outcome;
}

void clearShareRoot() {
    const QString root = QDir::cleanPath(QStringLiteral(DX_SHARE_ROOT));
    if (root.startsWith(QDir::cleanPath(QStringLiteral(DX_BINARY_DIR)) + "/"))
        QDir(root).removeRecursively();
}

} // namespace dxtest
