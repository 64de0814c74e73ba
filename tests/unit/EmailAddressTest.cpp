// The e-mail rule: the same language as the regular expression it replaces, at any input length.
#include "options/EmailAddress.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>

using measurement::dataExchange::isAcceptedEmailAddress;

// Many generated short strings drawn from the characters that matter (word characters,
// separators, letters in the ending, a blank, a non-ASCII byte), then one huge value each way.
TEST(EmailAddress, AgreesWithTheRegularExpression) {
    const std::regex pattern(R"(^[\w\-.]+@[\w\-.]+\.[a-zA-Z]+$)");
    const std::string alphabet = "aZ0_-.@@. \xe9";
    std::mt19937 random(12345);
    std::uniform_int_distribution<size_t> length(0, 9), pick(0, alphabet.size() - 1);
    for (int n = 0; n < 200000; ++n) {
        std::string value;
        for (size_t k = length(random); k > 0; --k)
            value += alphabet[pick(random)];
        ASSERT_EQ(isAcceptedEmailAddress(value), std::regex_match(value, pattern)) << value;
    }
    const std::string local(1 << 20, 'a');
    EXPECT_TRUE(isAcceptedEmailAddress(local + "@b.de"));
    EXPECT_FALSE(isAcceptedEmailAddress(local + "@b.d3"));
}
