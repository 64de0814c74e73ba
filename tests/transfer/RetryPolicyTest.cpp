// The wait before another attempt: the backoff doubles from the first delay up to a minute and is
// jittered between its half and its whole; a longer Retry-After wins, up to ten minutes.
#include "transfer/RetryPolicy.h"

#include <gtest/gtest.h>

#include <set>

using measurement::dataExchange::RetryPolicy;

TEST(RetryPolicy, DelayBefore) {
    const struct {
        uint32_t firstDelay, attempt;
        int retryAfter;
        uint32_t low, high;
    } cases[] = {
        {1000, 2, -1, 500, 1000},      {1000, 4, -1, 2000, 4000},
        {1000, 20, -1, 30000, 60000},  {0, 3, -1, 0, 0},
        {100, 2, 5, 5000, 5000},       {100, 2, 600, 600000, 600000},
        {100, 2, 601, 600000, 600000},
    };
    for (const auto& c : cases) {
        const RetryPolicy policy(3, c.firstDelay);
        std::set<uint32_t> seen;
        for (int n = 0; n < 200; ++n)
            seen.insert(policy.delayBefore(c.attempt, c.retryAfter));
        const std::string row = std::to_string(c.firstDelay) + " ms, attempt " +
                                std::to_string(c.attempt) + ", Retry-After " +
                                std::to_string(c.retryAfter);
        EXPECT_GE(*seen.begin(), c.low) << row;
        EXPECT_LE(*seen.rbegin(), c.high) << row;
        // A lab's PCs that lost the server together must not all come back at one moment.
        EXPECT_EQ(seen.size() > 1, c.low != c.high) << row;
    }
}
