// The option exports through the C ABI only: results, messages, values and buffer bytes.
#include "dataExchange.h"

#include <QFile>
#include <QRegularExpression>
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
    // A get or set through the export of the given type: the result and the value read, "7" when
    // the output was left as it was.
    std::pair<int32_t, std::string> call(bool get, const std::string& type, const char* name,
                                         const std::string& argument) {
        int32_t i = 7, result = 0;
        uint32_t u = 7;
        uint64_t l = 7;
        char text[64] = "7";
        const uint32_t which = get ? uint32_t(std::stoul(argument)) : 0u;
        const bool null = argument == "null";
        dataExchangeLibraryImp* const target = std::strcmp(name, "(no handle)") ? handle : nullptr;
        if (type == "Int32")
            result = get ? dataExchangeGetInt32Option(target, name, which, &i)
                         : dataExchangeSetInt32Option(target, name, std::stoi(argument));
        else if (type == "Uint32")
            result = get ? dataExchangeGetUint32Option(target, name, which, &u)
                         : dataExchangeSetUint32Option(target, name, std::stoul(argument));
        else if (type == "Uint64")
            result = get ? dataExchangeGetUint64Option(target, name, which, &l)
                         : dataExchangeSetUint64Option(target, name, std::stoull(argument));
        else
            result =
                get ? dataExchangeGetStringOption(target, name, which, sizeof text, text)
                    : dataExchangeSetStringOption(target, name, null ? nullptr : argument.c_str());
        const std::string value = type == "Int32"    ? std::to_string(i)
                                  : type == "Uint32" ? std::to_string(u)
                                  : type == "Uint64" ? std::to_string(l)
                                                     : text;
        return {result, value};
    }

    dataExchangeLibraryImp* handle = nullptr;
};

// The calls of tests/data/option-calls.txt in order.
TEST_F(OptionExports, ResultsValuesAndMessages) {
    QFile file(DX_SOURCE_DIR "/tests/data/option-calls.txt");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text));
    int rows = 0;
    for (const QString& line : QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)) {
        if (line.startsWith('#'))
            continue;
        const QStringList f = line.trimmed().split(QRegularExpression("\\s*\\|\\s*"));
        ASSERT_EQ(f.size(), 7) << line.toStdString();
        dataExchangeSetInt32Option(handle, "nothing", 0); // a message the call must empty
        const QByteArray name = f[2].toUtf8();
        const auto [result, value] =
            call(f[0] == "get", f[1].toStdString(), name.constData(), f[3].toStdString());
        const std::string messages = errors();
        const std::string after = call(true, f[1].toStdString(), name.constData(), "0").second;
        EXPECT_EQ(std::to_string(result) + " " + (f[0] == "get" ? value : after),
                  (f[4] + " " + f[5]).toStdString())
            << line.toStdString();
        EXPECT_EQ(messages, QString(f[6]).replace("\\n", "\n").toStdString()) << line.toStdString();
        ++rows;
    }
    EXPECT_EQ(rows, 41);
    EXPECT_EQ(dataExchangeGetStringOption(handle, "User", Current, 4, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeEnumerateOptions(nullptr, nullptr, nullptr), InvalidArgument);
}

TEST_F(OptionExports, StringBufferBytes) {
    ASSERT_EQ(dataExchangeSetStringOption(handle, "User", "abcde"), Success);
    const std::string tooSmall =
        "Received option value was too big for the allocated option buffer\n";
    const struct {
        size_t size;
        int32_t result;
        const char* bytes; // expected content of the 8-byte buffer, '#' untouched
        std::string errors;
    } cases[] = {
        {6, Success, "abcde\0##", ""},
        {8, Success, "abcde\0\0\0", ""},
        {5, BufferTooSmall, "abcde###", tooSmall},
        {0, BufferTooSmall, "########", tooSmall},
    };
    for (const auto& c : cases) {
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(dataExchangeGetStringOption(handle, "User", Current, c.size, buffer), c.result);
        EXPECT_EQ(std::string(buffer, 8), std::string(c.bytes, 8)) << c.size;
        EXPECT_EQ(errors(), c.errors) << c.size;
    }
}

// Name, summary, description, access and type of each option, in name order.
TEST_F(OptionExports, EnumerationInNameOrder) {
    QString seen;
    auto collect = [](const char* name, const char* summary, const char* description,
                      uint32_t access, uint32_t type, void* context) {
        *static_cast<QString*>(context) += QString("%1 | %2 | %3 | %4 | %5\n")
                                               .arg(name, summary, description)
                                               .arg(access)
                                               .arg(type);
    };
    ASSERT_EQ(dataExchangeEnumerateOptions(handle, collect, &seen), Success);
    QFile expected(DX_SOURCE_DIR "/tests/data/option-descriptions.txt");
    ASSERT_TRUE(expected.open(QIODevice::ReadOnly | QIODevice::Text));
    EXPECT_EQ(seen, QString::fromUtf8(expected.readAll()));
    EXPECT_EQ(dataExchangeEnumerateOptions(handle, nullptr, nullptr), Success);
}

} // namespace
