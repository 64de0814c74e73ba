// Upload through the C ABI, in this process or in the upload host program run from a folder of
// the test (the library looks for config.xml beside the calling application).
#pragma once

#include "dataExchange.h"

#include <QString>
#include <QStringList>
#include <array>
#include <vector>

namespace dxtest {

struct Outcome {
    int result = -999;
    QString name;
    uint32_t location = 0;
    QString errors;
    std::vector<std::array<quint64, 3>> progress; // stage, done, total of each callback
};

// Uploads path with the handle; the error list is read after the call.
Outcome upload(dataExchangeLibraryImp* handle, const QString& path, size_t nameSize = 256);

// Copies the upload host into folder and runs it on path with name=value options (dev, dt, loc,
// sn, user, progress, cancel, stall, proxy); tmp, when given, becomes its TMPDIR.
Outcome runUploadHost(const QString& folder, const QString& path, const QStringList& options,
                      const QString& tmp = QString());

// Empties the share root the library was built with, but only when it lies inside the build
// tree: a build left on a real deployment's share must never have it wiped by a test.
void clearShareRoot();

} // namespace dxtest
