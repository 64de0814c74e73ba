// Typed option objects: clamping, absent-bound markers, status codes and pending messages.
#include "options/dataExchangeOptionInt32Internal.h"
#include "options/dataExchangeOptionStringInternal.h"
#include "options/dataExchangeOptionUint32Internal.h"
#include "options/dataExchangeOptionUint64Internal.h"

#include <gtest/gtest.h>

using namespace measurement::dataExchange;
using Status = dataExchangeLibraryImp::AccessStatus;

namespace {

// Value functions over one static slot per type, so the tests see what a setter stored.
template <typename T> T slot{};
template <typename T> T load(dataExchangeLibraryImp*) {
    return slot<T>;
}
template <typename T> Status store(dataExchangeLibraryImp*, const T& value, bool&) {
    slot<T> = value;
    return dataExchangeLibraryImp::Ok;
}

dataExchangeOptionInt32Internal int32Option(int32_t type = Int32, bool withSetter = true) {
    return {type,
            3,
            "n",
            "s",
            "d",
            nullptr,
            0,
            4,
            -2147483647,
            &load<int32_t>,
            withSetter ? &store<int32_t> : nullptr};
}

} // namespace

TEST(OptionModel, Int32ClampsToBoundsAndReportsCropping) {
    struct Case {
        int32_t given, stored;
        bool cropped;
    } cases[] = {{9, 4, true}, {-3, 0, true}, {2, 2, false}, {4, 4, false}, {0, 0, false}};
    auto option = int32Option();
    for (const Case& c : cases) {
        bool cropped = !c.cropped;
        EXPECT_EQ(option.setValueFromInt32(c.given, cropped), dataExchangeLibraryImp::Ok);
        EXPECT_EQ(slot<int32_t>, c.stored) << c.given;
        EXPECT_EQ(cropped, c.cropped) << c.given;
    }
}

TEST(OptionModel, AbsentMarkersReadAsNoValue) {
    dataExchangeOptionUint32Internal u32(Uint32, 3, "n", "s", "d", nullptr, 0u, 4294967295u,
                                         4294967295u, &load<uint32_t>, &store<uint32_t>);
    dataExchangeOptionUint64Internal u64(Uint64, 3, "n", "s", "d", nullptr, 0u, 10u,
                                         18446744073709551615u, &load<uint64_t>, &store<uint64_t>);
    uint32_t v32 = 7;
    EXPECT_EQ(u32.minValueAsUint32(v32), dataExchangeLibraryImp::NoValue);
    EXPECT_EQ(u32.takePendingMessage(), "No min value provided");
    EXPECT_EQ(u32.maxValueAsUint32(v32), dataExchangeLibraryImp::NoValue);
    EXPECT_EQ(u32.takePendingMessage(), "No max value provided");
    EXPECT_EQ(u32.defaultValueAsUint32(v32), dataExchangeLibraryImp::NoValue);
    EXPECT_EQ(u32.takePendingMessage(), "No default value provided");
    EXPECT_EQ(v32, 7u);
    EXPECT_FALSE(u32.hasMinValue());

    uint64_t v64 = 0;
    EXPECT_EQ(u64.maxValueAsUint64(v64), dataExchangeLibraryImp::Ok);
    EXPECT_EQ(v64, 10u);
    bool cropped = false;
    EXPECT_EQ(u64.setValueFromUint64(11, cropped), dataExchangeLibraryImp::Ok);
    EXPECT_TRUE(cropped);
    EXPECT_EQ(slot<uint64_t>, 10u);
}

TEST(OptionModel, MissingValueFunctionsGiveClassSpecificCodes) {
    struct Case {
        const char* what;
        Status noGetter, noSetter;
        const char* setterMessage;
        std::function<Status(bool&)> set;
        std::function<Status()> get;
    };
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
    const Case cases[] = {
        {"Int32", dataExchangeLibraryImp::WriteOnly, dataExchangeLibraryImp::ReadOnly,
         "Value has no setter", [&](bool& c) { return i32.setValueFromInt32(1, c); },
         [&] { return i32.currentValueAsInt32(i); }},
        {"Uint32", dataExchangeLibraryImp::WriteOnly, dataExchangeLibraryImp::ReadOnly,
         "Value is read-only", [&](bool& c) { return u32.setValueFromUint32(1, c); },
         [&] { return u32.currentValueAsUint32(u); }},
        {"Uint64", dataExchangeLibraryImp::ReadOnly, dataExchangeLibraryImp::WriteOnly,
         "Value is read-only", [&](bool& c) { return u64.setValueFromUint64(1, c); },
         [&] { return u64.currentValueAsUint64(l); }},
        {"String", dataExchangeLibraryImp::WriteOnly, dataExchangeLibraryImp::ReadOnly,
         "Value is read-only", [&](bool& c) { return str.setValueFromString("x", c); },
         [&] { return str.currentValueAsString(s); }},
    };
    const dataExchangeOptionInternal* objects[] = {&i32, &u32, &u64, &str};
    for (size_t n = 0; n < std::size(cases); ++n) {
        const Case& c = cases[n];
        bool cropped = false;
        EXPECT_EQ(c.get(), c.noGetter) << c.what;
        EXPECT_EQ(objects[n]->takePendingMessage(), "Value is write-only") << c.what;
        EXPECT_EQ(c.set(cropped), c.noSetter) << c.what;
        EXPECT_EQ(objects[n]->takePendingMessage(), c.setterMessage) << c.what;
    }
}

TEST(OptionModel, OtherTypesReachTheBaseOrTheTypeCheck) {
    auto option = int32Option();
    uint32_t u = 0;
    EXPECT_EQ(option.currentValueAsUint32(u), dataExchangeLibraryImp::Unimplemented);
    const std::string message = option.takePendingMessage();
    EXPECT_EQ(message.rfind("Unimplemented ", 0), 0u) << message;
    EXPECT_NE(message.find("currentValueAsUint32"), std::string::npos) << message;
    EXPECT_EQ(message.substr(message.size() - 7), " method");

    auto mislabelled = int32Option(Uint32);
    int32_t i = 0;
    bool cropped = false;
    EXPECT_EQ(mislabelled.currentValueAsInt32(i), dataExchangeLibraryImp::WrongType);
    EXPECT_EQ(mislabelled.takePendingMessage(), "Option type is Uint32");
    EXPECT_EQ(mislabelled.setValueFromInt32(1, cropped), dataExchangeLibraryImp::WrongType);
    EXPECT_EQ(optionTypeName(-1), "Undefined type (wrong initialisation)");
    EXPECT_EQ(optionTypeName(9), "Unknown option type");
}

TEST(OptionModel, StringSetterLeavesCroppedAlone) {
    dataExchangeOptionStringInternal option(String, 3, "n", "s", "d", nullptr, "",
                                            &load<std::string>, &store<std::string>);
    for (bool before : {false, true}) {
        bool cropped = before;
        EXPECT_EQ(option.setValueFromString("abc", cropped), dataExchangeLibraryImp::Ok);
        EXPECT_EQ(cropped, before);
    }
    EXPECT_FALSE(option.hasDefaultValue());
}
