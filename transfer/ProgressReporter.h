#pragma once

#include "dataExchangeExt.h"

#include <QElapsedTimer>
#include <cstdint>

namespace measurement::dataExchange {

// Hands an upload's progress to the host's callback and remembers when the host asked to
// cancel. Without a callback every call is a no-op that never cancels.
class ProgressReporter {
public:
    ProgressReporter(dataExchangeProgressCallback callback, void* context);

    bool active() const { return callback != nullptr; }
    bool cancelled() const { return cancelRequested; }

    // The start or end of a stage: always passed on. False once the host asked to cancel.
    bool report(uint32_t stage, uint64_t done, uint64_t total);
    // Progress within a stage: passed on at most about ten times a second.
    bool update(uint32_t stage, uint64_t done, uint64_t total);

private:
    dataExchangeProgressCallback callback;
    void* context;
    QElapsedTimer sinceLastCall;
    bool cancelRequested = false;
};

} // namespace measurement::dataExchange
