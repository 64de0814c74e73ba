// Typed option objects: what the catalogue's options never show through the exports (missing
// value functions, mislabelled types, other types' operations) and the clamping rules.
#include "options/dataExchangeOptionInt32Internal.h"
#include "options/dataExchangeOptionStringInternal.h"
#include "options/dataExchangeOptionUint32Internal.h"
#include "options/dataExchangeOptionUint64Internal.h"

#include <gtest/gtest.h>

using namespace measurement::dataExchange;
using Imp = dataExchangeLibraryImp;

namespace {
template <typename T> T slot{};
template <typename T> T load(Imp*) {
    return slot<T>;
}
template <typename T> Imp::AccessStatus store(Imp*, const T& value, bool&) {
    slot<T> = value;
    return Imp::Ok;
}
} // namespace

TEST(OptionModel, ClampingAndCropping) {
    dataExchangeOptionInt32Internal i32(Int32, 3, "n", "s", "d", nullptr, 0, 4, 1, &load<int32_t>,
                                        &store<int32_t>);
    const struct {
        int32_t given, stored;
        bool cropped;
    } cases[] = {{9, 4, true}, {-3, 0, true}, {2, 2, false}, {4, 4, false}};
    for (const auto& c : cases) {
        bool cropped = !c.cropped;
        EXPECT_EQ(i32.setValueFromInt32(c.given, cropped), Imp::Ok);
        EXPECT_EQ(slot<int32_t>, c.stored) << c.given;
        EXPECT_EQ(cropped, c.cropped) << c.given;
    }
    // An unsigned minimum of 0 is the absent marker: it reads as missing and clips nothing.
    dataExchangeOptionUint64Internal u64(Uint64, 3, "n", "s", "d", nullptr, 0u, 10u, ~uint64_t(0),
                                         &load<uint64_t>, &store<uint64_t>);
    uint64_t value = 7;
    EXPECT_EQ(u64.minValueAsUint64(value), Imp::NoValue);
    EXPECT_EQ(u64.takePendingMessage(), "No min value provided");
    EXPECT_EQ(u64.defaultValueAsUint64(value), Imp::NoValue);
    EXPECT_EQ(u64.takePendingMessage(), "No default value provided");
    EXPECT_EQ(value, 7u);
    bool cropped = false;
    EXPECT_EQ(u64.setValueFromUint64(11, cropped), Imp::Ok);
    EXPECT_TRUE(cropped);
    EXPECT_EQ(slot<uint64_t>, 10u);
    // Texts are never clipped, and the caller's flag is left as it was.
    dataExchangeOptionStringInternal str(String, 3, "n", "s", "d", nullptr, "", &load<std::string>,
                                         &store<std::string>);
    cropped = true;
    EXPECT_EQ(str.setValueFromString("abc", cropped), Imp::Ok);
    EXPECT_TRUE(cropped);
}

// Missing value functions: Uint64 answers with the two codes swapped, Int32 with its own text.
TEST(OptionModel, MissingValueFunctions) {
    dataExchangeOptionInt32Internal i32(Int32, 3, "n", "s", "d", nullptr, 0, 4, 1, nullptr,
                                        nullptr);
    dataExchangeOptionUint32Internal u32(Uint32, 3, "n", "s", "d", nullptr, 0u, 4u, 1u, nullptr,
                                         nullptr);
    dataExchangeOptionUint64Internal u64(Uint64, 3, "n", "s", "d", nullptr, 0u, 4u, 1u, nullptr,
                                         nullptr);
    dataExchangeOptionStringInternal str(String, 3, "n", "s", "d", nullptr, "", nullptr, nullptr);
    int32_t i = 0;
    uint32_t u = 0;
    uint64_t l = 0;
    std::string s;
    bool c = false;
    const struct {
        const dataExchangeOptionInternal& option;
        Imp::AccessStatus get, set;
        const char* setMessage;
    } cases[] = {
        {i32, i32.currentValueAsInt32(i), i32.setValueFromInt32(1, c), "Value has no setter"},
        {u32, u32.currentValueAsUint32(u), u32.setValueFromUint32(1, c), "Value is read-only"},
        {u64, u64.currentValueAsUint64(l), u64.setValueFromUint64(1, c), "Value is read-only"},
        {str, str.currentValueAsString(s), str.setValueFromString("x", c), "Value is read-only"},
    };
    const Imp::AccessStatus expected[][2] = {{Imp::WriteOnly, Imp::ReadOnly},
                                             {Imp::WriteOnly, Imp::ReadOnly},
                                             {Imp::ReadOnly, Imp::WriteOnly},
                                             {Imp::WriteOnly, Imp::ReadOnly}};
    for (size_t n = 0; n < std::size(cases); ++n) {
        EXPECT_EQ(cases[n].get, expected[n][0]) << n;
        EXPECT_EQ(cases[n].set, expected[n][1]) << n;
        // The set ran last, so its message is the one pending.
        EXPECT_EQ(cases[n].option.takePendingMessage(), cases[n].setMessage) << n;
    }
}

TEST(OptionModel, OtherTypesReachTheBaseOrTheTypeCheck) {
    dataExchangeOptionInt32Internal option(Int32, 3, "n", "s", "d", nullptr, 0, 4, 1,
                                           &load<int32_t>, &store<int32_t>);
    uint32_t u = 0;
    EXPECT_EQ(option.currentValueAsUint32(u), Imp::Unimplemented);
    const std::string message = option.takePendingMessage();
    EXPECT_EQ(message.rfind("Unimplemented ", 0), 0u) << message;
    EXPECT_NE(message.find("currentValueAsUint32"), std::string::npos) << message;
    EXPECT_EQ(message.substr(message.size() - 7), " method");

    dataExchangeOptionInt32Internal mislabelled(Uint32, 3, "n", "s", "d", nullptr, 0, 4, 1,
                                                &load<int32_t>, &store<int32_t>);
    int32_t i = 0;
    EXPECT_EQ(mislabelled.currentValueAsInt32(i), Imp::WrongType);
    EXPECT_EQ(mislabelled.takePendingMessage(), "Option type is Uint32");
    EXPECT_EQ(optionTypeName(-1), "Undefined type (wrong initialisation)");
    EXPECT_EQ(optionTypeName(9), "Unknown option type");
}
