#include "transfer/RetryPolicy.h"

#include <QElapsedTimer>
#include <QThread>
#include <algorithm>
#include <random>

namespace measurement::dataExchange {

uint32_t RetryPolicy::delayBefore(uint32_t attempt, int retryAfterSeconds) const {
    uint64_t backoff = firstDelay;
    for (uint32_t n = 2; n < attempt && backoff < capMilliseconds; ++n)
        backoff *= 2;
    backoff = std::min<uint64_t>(backoff, capMilliseconds);
    static thread_local std::minstd_rand random{std::random_device{}()};
    const uint64_t half = backoff / 2;
    const uint64_t jittered = half + (half == 0 ? 0 : random() % (backoff - half + 1));
    const uint64_t asked =
        retryAfterSeconds < 0
            ? 0
            : uint64_t(std::min<uint32_t>(uint32_t(retryAfterSeconds), retryAfterCapSeconds)) *
                  1000;
    return uint32_t(std::max(jittered, asked));
}

bool RetryPolicy::wait(uint32_t milliseconds, ProgressReporter& progress) {
    if (!progress.report(StageRetryWait, 0, milliseconds))
        return false;
    QElapsedTimer waited;
    waited.start();
    // In steps of at most 50 ms, so that a cancel ends the wait at once.
    for (qint64 left = milliseconds; left > 0; left = qint64(milliseconds) - waited.elapsed()) {
        QThread::msleep(ulong(std::min<qint64>(left, 50)));
        if (!progress.update(StageRetryWait,
                             uint64_t(std::min<qint64>(waited.elapsed(), milliseconds)),
                             milliseconds))
            return false;
    }
    return progress.report(StageRetryWait, milliseconds, milliseconds);
}

} // namespace measurement::dataExchange
