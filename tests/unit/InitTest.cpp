// A catalogue that yields no options makes Init fail and report through its buffer.
#include "dataExchange.h"
#include "options/OptionCatalogue.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace measurement::dataExchange;

namespace {
dataExchangeLibraryImp::OptionMap& noOptions(dataExchangeLibraryImp& owner) {
    return owner.options;
}
} // namespace

TEST(Init, EmptyCatalogueFailsWithTerminatedMessage) {
    const CatalogueBuilder previous = replaceCatalogueBuilder(&noOptions);
    struct Case {
        size_t size;
        const char* expected;
    } cases[] = {{10, "No option"}, {19, "No options defined"}, {64, "No options defined\n"}};
    for (const Case& c : cases) {
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(dataExchangeInit(nullptr, c.size, buffer), nullptr);
        EXPECT_STREQ(buffer, c.expected) << c.size;
    }
    char untouched[4] = "abc";
    EXPECT_EQ(dataExchangeInit(nullptr, 0, untouched), nullptr);
    EXPECT_STREQ(untouched, "abc");
    EXPECT_EQ(dataExchangeInit(nullptr, 16, nullptr), nullptr);
    replaceCatalogueBuilder(previous);
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    EXPECT_NE(handle, nullptr);
    dataExchangeClose(&handle);
}
