#include "api/CoreAppWrapper.h"

#include "api/LibraryGlobals.h"

#include <QCoreApplication>

namespace measurement::dataExchange {

CoreAppWrapper::CoreAppWrapper() {
    app = QCoreApplication::instance();
    if (app != nullptr)
        return;
    // The argument count and vector are static: Qt keeps references to both for the
    // application's whole life.
    app = new QCoreApplication(fakeArgumentCount, fakeArguments);
    owned = true;
}

CoreAppWrapper::~CoreAppWrapper() {
    if (owned) {
        QCoreApplication::quit();
        delete app;
    }
    app = nullptr;
}

} // namespace measurement::dataExchange
