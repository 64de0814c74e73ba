// The e-mail rule: same language as the regular expression it replaces, at any input length.
#include "options/EmailAddress.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>

using measurement::dataExchange::isAcceptedEmailAddress;

TEST(EmailAddress, Examples) {
    const std::pair<const char*, bool> cases[] = {
        {"anna.berg@lab-3.example.org", true},
        {".a-b_c@-x.de", true},
        {"a@b.c", true},
        {"a@b.c1", false},
        {"a b@c.de", false},
        {"", false},
        {"@b.de", false},
        {"a@.de", false},
        {"a@de", false},
        {"a@b.", false},
        {"a@b@c.de", false},
        {"a@b.de ", false},
        {"\xc3\xa4@b.de", false},
        {"a@b..de", true},
    };
    for (const auto& [value, accepted] : cases)
        EXPECT_EQ(isAcceptedEmailAddress(value), accepted) << value;
}

// Compares with std::regex over many generated short strings drawn from the characters that
// matter (word characters, separators, letters in the ending, a blank, a non-ASCII byte).
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
}

TEST(EmailAddress, HugeValuesAreJudgedNotCrashed) {
    const std::string local(1 << 20, 'a');
    EXPECT_TRUE(isAcceptedEmailAddress(local + "@b.de"));
    EXPECT_FALSE(isAcceptedEmailAddress(local + "@b.d3"));
}
