// Handle lifecycle, error list, build identity and the application object, through the C ABI.
#include "dataExchangeExt.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

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
}

// Text buffers: cut without a terminator when too small; the error list is emptied either way.
TEST(Lifecycle, TextBuffers) {
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    char version[128];
    ASSERT_EQ(dataExchangeVersion(sizeof version, version), Success);
    EXPECT_EQ(std::string(version).rfind("v2.0.0 (", 0), 0u) << version;
    EXPECT_EQ(std::string(version).substr(18, 2), ") ") << version;
    const std::string error = "Option 'x' does not exist\n";
    const auto errors = [&](size_t size, char* buffer) {
        int32_t value = 0;
        dataExchangeGetInt32Option(handle, "x", Current, &value);
        const int32_t result = dataExchangeGetLastErrors(handle, size, buffer);
        char again[4] = "#";
        EXPECT_EQ(dataExchangeGetLastErrors(handle, sizeof again, again), Success);
        EXPECT_STREQ(again, "#");
        return result;
    };
    // A spool folder with nothing in it lists as "".
    const std::string spool = ::testing::TempDir() + "lifecycle-spool-none";
    ASSERT_EQ(dataExchangeSetSpoolFolder(handle, spool.c_str()), Success);
    const auto spooled = [&](size_t size, char* buffer) {
        return dataExchangeListSpooled(handle, size, buffer);
    };
    const struct {
        std::function<int32_t(size_t, char*)> call;
        std::string text;
    } cases[] = {{dataExchangeVersion, version}, {errors, error}, {spooled, ""}};
    for (const auto& c : cases) {
        for (size_t size : {c.text.size() + 1, c.text.size(), size_t(5)}) {
            char buffer[128];
            std::memset(buffer, '#', sizeof buffer);
            EXPECT_EQ(c.call(size, buffer), size > c.text.size() ? Success : BufferTooSmall);
            const size_t written = std::min(size, c.text.size());
            EXPECT_EQ(std::string(buffer, written + 1),
                      c.text.substr(0, written) + (size > c.text.size() ? '\0' : '#'));
        }
    }
    EXPECT_EQ(dataExchangeGetLastErrors(nullptr, 8, nullptr), InvalidArgument);
    EXPECT_EQ(errors(8, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeVersion(5, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeVersion(0, nullptr), BufferTooSmall);
    char sha[41];
    EXPECT_EQ(dataExchangeSha1(sizeof sha, sha), Success);
    EXPECT_EQ(std::strspn(sha, "0123456789abcdef"), 40u);
    EXPECT_EQ(dataExchangeSha1(40, sha), BufferTooSmall);
    EXPECT_EQ(dataExchangeSha1(1, nullptr), InvalidArgument);
    dataExchangeClose(&handle);
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
    QCoreApplication host(argc, argv);
    dataExchangeLibraryImp* borrowed = dataExchangeInit(nullptr, 0, nullptr);
    dataExchangeClose(&borrowed);
    EXPECT_EQ(QCoreApplication::instance(), &host);
}
