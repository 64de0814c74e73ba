#include "transfer/ProgressReporter.h"

namespace measurement::dataExchange {

namespace {
constexpr qint64 minimumIntervalMs = 100;
}

ProgressReporter::ProgressReporter(dataExchangeProgressCallback callback, void* context)
    : callback(callback), context(context) {}

bool ProgressReporter::report(uint32_t stage, uint64_t done, uint64_t total) {
    if (callback == nullptr || cancelRequested)
        return !cancelRequested;
    sinceLastCall.start();
    cancelRequested = callback(stage, done, total, context) != 0;
    return !cancelRequested;
}

bool ProgressReporter::update(uint32_t stage, uint64_t done, uint64_t total) {
    if (callback == nullptr || cancelRequested)
        return !cancelRequested;
    if (sinceLastCall.isValid() && sinceLastCall.elapsed() < minimumIntervalMs)
        return true;
    return report(stage, done, total);
}

} // namespace measurement::dataExchange
