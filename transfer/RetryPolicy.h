// When an upload tries again after a passing fault, and the wait before it: exponential backoff
// from a first delay, with jitter (so that the PCs of a lab that lost the server together do not
// come back together) and a cap, or the server's own Retry-After.
#pragma once

#include "transfer/ProgressReporter.h"

#include <cstdint>

namespace measurement::dataExchange {

class RetryPolicy {
public:
    static constexpr uint32_t maximumRetries = 20;
    static constexpr uint32_t capMilliseconds = 60 * 1000;
    // A server that asks for more than this is tried again after this long anyway.
    static constexpr uint32_t retryAfterCapSeconds = 10 * 60;

    RetryPolicy(uint32_t retries = 0, uint32_t firstDelayMilliseconds = 1000)
        : retries(retries), firstDelay(firstDelayMilliseconds) {}

    bool enabled() const { return retries > 0; }
    uint32_t attempts() const { return retries + 1; }

    // The wait before attempt `attempt` (2, 3, ...): half the backoff plus up to as much again at
    // random, or the server's Retry-After (seconds, -1 for none) when that is longer.
    uint32_t delayBefore(uint32_t attempt, int retryAfterSeconds) const;
    // Waits that long as a progress stage of its own (StageRetryWait: milliseconds waited of the
    // wait); false, at once, when the host cancels.
    static bool wait(uint32_t milliseconds, ProgressReporter& progress);

private:
    uint32_t retries;
    uint32_t firstDelay;
};

} // namespace measurement::dataExchange
