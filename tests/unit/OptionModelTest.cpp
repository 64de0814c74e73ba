// Typed option objects: what the catalogue's options never show through the exports (missing
// value functions, mislabelled types, other types' operations) and the unsigned absent marker.
#include "options/dataExchangeOptionInt32Internal.h"
#include "options/dataExchangeOptionStringInternal.h"
#include "options/dataExchangeOptionUint32Internal.h"
#include "options/dataExchangeOptionUint64Internal.h"

#include <gtest/gtest.h>

#include <functional>

using namespace measurement::dataExchange;
using Imp = dataExchangeLibraryImp;

namespace {
int32_t stored = 0;
int32_t load(Imp*) {
    return stored;
}
Imp::AccessStatus store(Imp*, const int32_t& value, bool&) {
    stored = value;
    return Imp::Ok;
}
} // namespace

// Missing value functions: Uint64 answers with the two codes swapped, Int32 with its own text;
// an unsigned bound of 0 is the absent marker, for Uint32 and Uint64 alike.
TEST(OptionModel, MissingValueFunctionsAndBounds) {
    dataExchangeOptionInt32Internal i32(Int32, 3, "n", "s", "d", nullptr, 0, 4, 1, nullptr,
                                        nullptr);
    dataExchangeOptionUint32Internal u32(Uint32, 3, "n", "s", "d", nullptr, 0u, 4u, ~0u, nullptr,
                                         nullptr);
    dataExchangeOptionUint64Internal u64(Uint64, 3, "n", "s", "d", nullptr, 0u, ~uint64_t(0), 1u,
                                         nullptr, nullptr);
    dataExchangeOptionStringInternal str(String, 3, "n", "s", "d", nullptr, "", nullptr, nullptr);
    int32_t i = 0;
    uint32_t u = 0;
    uint64_t l = 0;
    std::string s;
    bool c = false;
    const struct {
        const dataExchangeOptionInternal& option;
        std::function<Imp::AccessStatus()> call;
        Imp::AccessStatus expected;
        const char* message;
    } cases[] = {
        {i32, [&] { return i32.currentValueAsInt32(i); }, Imp::WriteOnly, "Value is write-only"},
        {i32, [&] { return i32.setValueFromInt32(1, c); }, Imp::ReadOnly, "Value has no setter"},
        {u32, [&] { return u32.currentValueAsUint32(u); }, Imp::WriteOnly, "Value is write-only"},
        {u32, [&] { return u32.setValueFromUint32(1, c); }, Imp::ReadOnly, "Value is read-only"},
        {u32, [&] { return u32.minValueAsUint32(u); }, Imp::NoValue, "No min value provided"},
        {u32, [&] { return u32.defaultValueAsUint32(u); }, Imp::NoValue,
         "No default value provided"},
        {u64, [&] { return u64.currentValueAsUint64(l); }, Imp::ReadOnly, "Value is write-only"},
        {u64, [&] { return u64.setValueFromUint64(1, c); }, Imp::WriteOnly, "Value is read-only"},
        {u64, [&] { return u64.maxValueAsUint64(l); }, Imp::NoValue, "No max value provided"},
        {str, [&] { return str.currentValueAsString(s); }, Imp::WriteOnly, "Value is write-only"},
        {str, [&] { return str.setValueFromString("x", c); }, Imp::ReadOnly, "Value is read-only"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(row.call(), row.expected) << row.message;
        EXPECT_EQ(row.option.takePendingMessage(), row.message);
    }
    EXPECT_EQ(u + l + i, 0u); // nothing read
}

TEST(OptionModel, OtherTypesReachTheBaseOrTheTypeCheck) {
    dataExchangeOptionInt32Internal option(Int32, 3, "n", "s", "d", nullptr, 0, 4, 1, &load,
                                           &store);
    uint32_t u = 0;
    EXPECT_EQ(option.currentValueAsUint32(u), Imp::Unimplemented);
    const std::string message = option.takePendingMessage();
    EXPECT_EQ(message.rfind("Unimplemented ", 0), 0u) << message;
    EXPECT_NE(message.find("currentValueAsUint32"), std::string::npos) << message;
    EXPECT_EQ(message.substr(message.size() - 7), " method");

    dataExchangeOptionInt32Internal mislabelled(Uint32, 3, "n", "s", "d", nullptr, 0, 4, 1, &load,
                                                &store);
    int32_t i = 0;
    EXPECT_EQ(mislabelled.currentValueAsInt32(i), Imp::WrongType);
    EXPECT_EQ(mislabelled.takePendingMessage(), "Option type is Uint32");
    EXPECT_EQ(optionTypeName(-1), "Undefined type (wrong initialisation)");
    EXPECT_EQ(optionTypeName(9), "Unknown option type");
}
