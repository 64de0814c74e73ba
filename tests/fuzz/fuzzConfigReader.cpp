// The config.xml reader on arbitrary bytes. Beyond what the sanitizers catch: the result and the
// "configuration read" mark must agree.
#include "server/ServerInteractor.h"

#include <QFile>
#include <QTemporaryDir>
#include <cstdint>
#include <cstdlib>

namespace {

QString configPath;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The reader takes a path: each input is written to one file of this process.
    static QTemporaryDir folder;
    configPath = folder.filePath("config.xml");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QFile file(configPath);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size))
        std::abort();
    file.close();
    measurement::dataExchange::ServerInteractor interactor({}, nullptr);
    if (interactor.readConfiguration(configPath) != interactor.isConfigurationRead())
        std::abort();
    return 0;
}
