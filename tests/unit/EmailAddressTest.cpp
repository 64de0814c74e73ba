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

// The ends of the letter and digit ranges and the characters just outside them, in the local
// part, the domain and the ending: the generated strings above draw only 'a', 'Z' and '0'.
TEST(EmailAddress, RangeEndsInEveryPart) {
    const char* const accepted[] = {"a@b.de", "z@b.de", "A@b.de", "Z@b.de", "0@b.de", "9@b.de",
                                    "x@a.de", "x@z.de", "x@A.de", "x@Z.de", "x@0.de", "x@9.de",
                                    "x@b.a",  "x@b.z",  "x@b.A",  "x@b.Z"};
    const char* const refused[] = {"`@b.de", "{@b.de", "[@b.de", "/@b.de", ":@b.de", "x@`.de",
                                   "x@{.de", "x@[.de", "x@/.de", "x@:.de", "x@b.0",  "x@b.9",
                                   "x@b.`",  "x@b.{",  "x@b.@",  "x@b.["};
    for (const char* address : accepted)
        EXPECT_TRUE(isAcceptedEmailAddress(address)) << address;
    for (const char* address : refused)
        EXPECT_FALSE(isAcceptedEmailAddress(address)) << address;
}
