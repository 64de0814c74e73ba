// The option exports through the C ABI only: results, messages and buffer bytes.
#include "dataExchange.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

class OptionExports : public testing::Test {
protected:
    void SetUp() override { handle = dataExchangeInit(nullptr, 0, nullptr); }
    void TearDown() override { dataExchangeClose(&handle); }

    std::string errors() {
        std::vector<char> buffer(4096, '\x7f');
        EXPECT_EQ(dataExchangeGetLastErrors(handle, buffer.size(), buffer.data()), Success);
        return buffer[0] == '\x7f' ? std::string() : std::string(buffer.data());
    }

    dataExchangeLibraryImp* handle = nullptr;
};

struct Call {
    const char* what;
    std::function<int32_t(dataExchangeLibraryImp*)> run;
    int32_t result;
    const char* errors;
};

int32_t i32 = 0;
uint32_t u32 = 0;
uint64_t u64 = 0;
char text[64];

} // namespace

TEST_F(OptionExports, FreshHandleValues) {
    int32_t device = 0, dataType = 0;
    uint32_t location = 0, report = 0;
    uint64_t serial = 1;
    EXPECT_EQ(dataExchangeGetInt32Option(handle, "Device type", Current, &device), Success);
    EXPECT_EQ(dataExchangeGetInt32Option(handle, "Data type", Current, &dataType), Success);
    EXPECT_EQ(dataExchangeGetUint32Option(handle, "Location", Current, &location), Success);
    EXPECT_EQ(dataExchangeGetUint32Option(handle, "Report", Current, &report), Success);
    EXPECT_EQ(dataExchangeGetUint64Option(handle, "Serial number", Current, &serial), Success);
    EXPECT_EQ(device, -1);
    EXPECT_EQ(dataType, -1);
    EXPECT_EQ(location, 3u);
    EXPECT_EQ(report, 1u);
    EXPECT_EQ(serial, 0u);
    for (const char* name : {"Email address", "User"}) {
        std::memset(text, 'x', sizeof text);
        EXPECT_EQ(dataExchangeGetStringOption(handle, name, Current, sizeof text, text), Success);
        EXPECT_STREQ(text, "");
    }
}

// Every message of the option exports, each row one call on a fresh handle.
TEST_F(OptionExports, ResultsAndMessages) {
    const Call calls[] = {
        {"empty name", [](auto h) { return dataExchangeGetInt32Option(h, "", Current, &i32); }, 1,
         "optName parameter is nullptr\n"},
        {"case differs", [](auto h) { return dataExchangeSetInt32Option(h, "device type", 1); }, 20,
         "Option 'device type' does not exist\n"},
        {"Int32 on a string",
         [](auto h) { return dataExchangeGetInt32Option(h, "User", Current, &i32); }, 20,
         "Invalid option type Int32 for option 'User'\n"},
        {"String on a Uint64",
         [](auto h) { return dataExchangeSetStringOption(h, "Serial number", "1"); }, 20,
         "Invalid option type String for option 'Serial number'\n"},
        {"Uint64 on a Uint32",
         [](auto h) { return dataExchangeGetUint64Option(h, "Report", Current, &u64); }, 20,
         "Invalid option type Uint64 for option 'Report'\n"},
        {"string minimum",
         [](auto h) { return dataExchangeGetStringOption(h, "User", Minimum, 64, text); }, 21,
         "Option 'User' has no getter for min value\n"},
        {"string maximum",
         [](auto h) { return dataExchangeGetStringOption(h, "User", Maximum, 64, text); }, 21,
         "Option 'User' has no getter for max value\n"},
        {"string default",
         [](auto h) { return dataExchangeGetStringOption(h, "User", Default, 64, text); }, 21,
         "Option 'User' has no default value\n"},
        {"Report minimum 0 reads as none",
         [](auto h) { return dataExchangeGetUint32Option(h, "Report", Minimum, &u32); }, 21,
         "Option 'Report' has no min value\n"},
        {"serial maximum",
         [](auto h) { return dataExchangeGetUint64Option(h, "Serial number", Maximum, &u64); }, 21,
         "Option 'Serial number' has no max value\n"},
        {"device default",
         [](auto h) { return dataExchangeGetInt32Option(h, "Device type", Default, &i32); }, 21,
         "Option 'Device type' has no default value\n"},
        {"device cropped", [](auto h) { return dataExchangeSetInt32Option(h, "Device type", 7); },
         -20, "Option 'Device type' was cropped\n"},
        {"location 0 cropped", [](auto h) { return dataExchangeSetUint32Option(h, "Location", 0); },
         -20, "Option 'Location' was cropped\n"},
        {"bad e-mail",
         [](auto h) { return dataExchangeSetStringOption(h, "Email address", "a b@c.de"); }, 11,
         "Invalid email address: a b@c.de\nOption 'Email address' cannot be written\n"},
        {"empty e-mail", [](auto h) { return dataExchangeSetStringOption(h, "Email address", ""); },
         11, "Invalid email address: \nOption 'Email address' cannot be written\n"},
        {"unknown selector",
         [](auto h) { return dataExchangeGetUint32Option(h, "Location", 7, &u32); }, 0, ""},
        {"null string buffer",
         [](auto h) { return dataExchangeGetStringOption(h, "User", Current, 4, nullptr); }, 1, ""},
        {"null string value",
         [](auto h) { return dataExchangeSetStringOption(h, "User", nullptr); }, 1, ""},
    };
    for (const Call& call : calls) {
        // A message left by an earlier call must be emptied by this one.
        dataExchangeSetInt32Option(handle, "nothing", 0);
        EXPECT_EQ(call.run(handle), call.result) << call.what;
        EXPECT_EQ(errors(), call.errors) << call.what;
    }
    for (auto run :
         {+[](dataExchangeLibraryImp* h) { return dataExchangeGetInt32Option(h, "x", 0, &i32); },
          +[](dataExchangeLibraryImp* h) { return dataExchangeSetUint64Option(h, "x", 0); },
          +[](dataExchangeLibraryImp* h) {
              return dataExchangeEnumerateOptions(h, nullptr, nullptr);
          }})
        EXPECT_EQ(run(nullptr), InvalidArgument);
}

TEST_F(OptionExports, CroppedValuesAndBoundsAreStored) {
    EXPECT_EQ(dataExchangeSetInt32Option(handle, "Data type", -5), ValueCropped);
    EXPECT_EQ(dataExchangeGetInt32Option(handle, "Data type", Current, &i32), Success);
    EXPECT_EQ(i32, 0);
    EXPECT_EQ(dataExchangeSetUint32Option(handle, "Report", 9), ValueCropped);
    EXPECT_EQ(dataExchangeGetUint32Option(handle, "Report", Current, &u32), Success);
    EXPECT_EQ(u32, 1u);
    EXPECT_EQ(dataExchangeGetUint32Option(handle, "Location", Default, &u32), Success);
    EXPECT_EQ(u32, 3u);
    EXPECT_EQ(dataExchangeGetInt32Option(handle, "Data type", Maximum, &i32), Success);
    EXPECT_EQ(i32, 6);
    EXPECT_EQ(dataExchangeSetUint64Option(handle, "Serial number", UINT64_MAX), Success);
    EXPECT_EQ(dataExchangeGetUint64Option(handle, "Serial number", Current, &u64), Success);
    EXPECT_EQ(u64, UINT64_MAX);
    // A refused address leaves the stored one in place.
    EXPECT_EQ(dataExchangeSetStringOption(handle, "Email address", "a@b.de"), Success);
    EXPECT_EQ(dataExchangeSetStringOption(handle, "Email address", "x"), WriteFailed);
    EXPECT_EQ(dataExchangeGetStringOption(handle, "Email address", Current, 64, text), Success);
    EXPECT_STREQ(text, "a@b.de");
}

TEST_F(OptionExports, StringBufferBytes) {
    ASSERT_EQ(dataExchangeSetStringOption(handle, "User", "abcde"), Success);
    struct Case {
        size_t size;
        int32_t result;
        const char* bytes; // expected content of the 8-byte buffer, '#' untouched
        const char* errors;
    } cases[] = {
        {6, Success, "abcde\0##", ""},
        {8, Success, "abcde\0\0\0", ""},
        {5, BufferTooSmall, "abcde###",
         "Received option value was too big for the allocated option buffer\n"},
        {0, BufferTooSmall, "########",
         "Received option value was too big for the allocated option buffer\n"},
    };
    for (const Case& c : cases) {
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(dataExchangeGetStringOption(handle, "User", Current, c.size, buffer), c.result);
        EXPECT_EQ(std::string(buffer, 8), std::string(c.bytes, 8)) << c.size;
        EXPECT_EQ(errors(), c.errors) << c.size;
    }
}

TEST_F(OptionExports, EnumerationInNameOrder) {
    std::vector<std::vector<std::string>> seen;
    auto collect = [](const char* name, const char* summary, const char* description,
                      uint32_t access, uint32_t type, void* context) {
        static_cast<decltype(seen)*>(context)->push_back(
            {name, summary, description, std::to_string(access), std::to_string(type)});
    };
    ASSERT_EQ(dataExchangeEnumerateOptions(handle, collect, &seen), Success);
    const std::vector<std::vector<std::string>> expected = {
        {"Data type", "Type of data",
         "Type of sent data, corresponding to values of dataExchangeDataType.", "3", "0"},
        {"Device type", "Type of the device", "This is the type of the device.", "3", "0"},
        {"Email address", "Email address", "User email address.", "3", "3"},
        {"Location", "Location where data will be uploaded to",
         "Location where data will be uploaded to, 1 stands for ...", "3", "1"},
        {"Report", "Enable reporting",
         "Enable reporting, 0 = no report wanted, 1 = report is wanted.", "3", "1"},
        {"Serial number", "Serial number of the device", "This is the the device serial number.",
         "3", "2"},
        {"User", "User name", "User (nick) name of the person sending the data.", "3", "3"},
    };
    EXPECT_EQ(seen, expected);
}
