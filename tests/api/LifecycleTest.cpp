// Handle lifecycle, error list, build identity and the application object, through the C ABI.
#include "dataExchange.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// Leaves exactly "Option 'x' does not exist\n" (26 bytes) in the handle's error list.
void leaveOneMessage(dataExchangeLibraryImp* handle) {
    int32_t value = 0;
    dataExchangeGetInt32Option(handle, "x", Current, &value);
}

} // namespace

TEST(Lifecycle, CloseRules) {
    EXPECT_EQ(dataExchangeClose(nullptr), InvalidArgument);
    dataExchangeLibraryImp* handle = nullptr;
    EXPECT_EQ(dataExchangeClose(&handle), Success);
    char buffer[8] = "keep";
    handle = dataExchangeInit(reinterpret_cast<void*>(0x1234), sizeof buffer, buffer);
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(dataExchangeClose(&handle), Success);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(dataExchangeClose(&handle), Success);
}

TEST(Lifecycle, ErrorListBufferBytes) {
    const std::string text = "Option 'x' does not exist\n";
    struct Case {
        size_t size;
        int32_t result;
        size_t terminatorAt; // 0: no terminator written
    } cases[] = {
        {64, Success, 26}, {27, Success, 26}, {26, BufferTooSmall, 0}, {5, BufferTooSmall, 0}};
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    for (const Case& c : cases) {
        char buffer[80];
        std::memset(buffer, '#', sizeof buffer);
        leaveOneMessage(handle);
        EXPECT_EQ(dataExchangeGetLastErrors(handle, c.size, buffer), c.result) << c.size;
        const size_t written = std::min(c.size, text.size());
        EXPECT_EQ(std::string(buffer, written), text.substr(0, written)) << c.size;
        EXPECT_EQ(buffer[written], c.terminatorAt ? '\0' : '#') << c.size;
        // The messages are gone either way: a second read leaves the buffer untouched.
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(dataExchangeGetLastErrors(handle, sizeof buffer, buffer), Success);
        EXPECT_EQ(buffer[0], '#');
    }
    EXPECT_EQ(dataExchangeGetLastErrors(nullptr, 8, nullptr), InvalidArgument);
    dataExchangeClose(&handle);
}

TEST(Lifecycle, BuildIdentity) {
    char version[128];
    ASSERT_EQ(dataExchangeVersion(sizeof version, version), Success);
    const std::string text = version;
    EXPECT_EQ(text.rfind("v2.0.0 (", 0), 0u) << text;
    EXPECT_EQ(text.substr(18, 2), ") ") << text;
    char cut[128];
    std::memset(cut, '#', sizeof cut);
    EXPECT_EQ(dataExchangeVersion(text.size(), cut), BufferTooSmall);
    EXPECT_EQ(std::string(cut, text.size()), text);
    EXPECT_EQ(cut[text.size()], '#');
    EXPECT_EQ(dataExchangeVersion(text.size() + 1, cut), Success);
    EXPECT_EQ(dataExchangeVersion(5, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeVersion(0, nullptr), BufferTooSmall);

    char sha[41];
    EXPECT_EQ(dataExchangeSha1(sizeof sha, sha), Success);
    EXPECT_EQ(std::strlen(sha), 40u);
    EXPECT_EQ(std::strspn(sha, "0123456789abcdef"), 40u);
    EXPECT_EQ(dataExchangeSha1(40, sha), BufferTooSmall);
    EXPECT_EQ(dataExchangeSha1(1, nullptr), InvalidArgument);
}

// Without a host application the first handle makes one and its close removes it; a host's own
// application is borrowed and survives every close.
TEST(Lifecycle, ApplicationObject) {
    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    dataExchangeLibraryImp* first = dataExchangeInit(nullptr, 0, nullptr);
    QCoreApplication* made = QCoreApplication::instance();
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(QCoreApplication::arguments().value(0), "Fake application");
    dataExchangeLibraryImp* second = dataExchangeInit(nullptr, 0, nullptr);
    EXPECT_EQ(QCoreApplication::instance(), made);
    dataExchangeClose(&first);
    EXPECT_EQ(QCoreApplication::instance(), nullptr);
    dataExchangeClose(&second);

    int argc = 1;
    char name[] = "host";
    char* argv[] = {name, nullptr};
    {
        QCoreApplication host(argc, argv);
        dataExchangeLibraryImp* borrowed = dataExchangeInit(nullptr, 0, nullptr);
        dataExchangeClose(&borrowed);
        EXPECT_EQ(QCoreApplication::instance(), &host);
    }
}
