#pragma once

class QCoreApplication;

namespace measurement::dataExchange {

// Keeps a Qt application object alive for a handle: Qt's event loops need one. A host that has
// its own application lends it; otherwise the first handle creates one and owns it.
class CoreAppWrapper {
public:
    CoreAppWrapper();
    virtual ~CoreAppWrapper();
    CoreAppWrapper(const CoreAppWrapper&) = delete;
    CoreAppWrapper& operator=(const CoreAppWrapper&) = delete;

    QCoreApplication* application() const { return app; }
    bool ownsApplication() const { return owned; }

private:
    QCoreApplication* app = nullptr;
    bool owned = false;
};

} // namespace measurement::dataExchange
