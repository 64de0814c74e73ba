// A catalogue that yields no options makes Init fail and report through its buffer, which Init
// alone always terminates.
#include "dataExchange.h"
#include "options/OptionCatalogue.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace measurement::dataExchange;

TEST(Init, EmptyCatalogueFailsWithTerminatedMessage) {
    const CatalogueBuilder previous = replaceCatalogueBuilder(
        [](dataExchangeLibraryImp & owner) -> auto& { return owner.options; });
    const std::pair<size_t, const char*> cases[] = {
        {10, "No option"}, {19, "No options defined"}, {64, "No options defined\n"}};
    for (const auto& [size, expected] : cases) {
        char buffer[64];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(dataExchangeInit(nullptr, size, buffer), nullptr);
        EXPECT_STREQ(buffer, expected) << size;
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
