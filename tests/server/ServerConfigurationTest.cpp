// Reading config.xml: every failure message and the traversal quirks, one XML document per row.
#include "server/ServerInteractor.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <string>

using measurement::dataExchange::ServerInteractor;

namespace {

struct ConfigCase {
    const char* name;
    const char* xml;
    bool result;
    const char* error;
    // Expected settings afterwards (read also after a failure: nothing is rolled back).
    const char* serverName = "";
    const char* protocol = "";
    unsigned port = 0;
    unsigned timeout = 0;
    const char* proxy = "||"; // url|user|password
};

#define SERVER(body) "<Configuration><Server>" body "</Server></Configuration>"
#define NAME "<Name>host</Name>"
#define PROTOCOL "<Protocol>https</Protocol>"
#define PORT "<Port>443</Port>"
#define TIMEOUT "<Timeout>30</Timeout>"

const ConfigCase configCases[] = {
    {"Complete", SERVER(NAME PROTOCOL PORT TIMEOUT), true, "", "host", "https", 443, 30},
    {"PortZeroAndLargestTimeout",
     SERVER(NAME PROTOCOL "<Port>0</Port><Timeout>4294967295</Timeout>"), true, "", "host", "https",
     0, 4294967295u},
    {"ValuesNotTrimmedChildTextDropped",
     SERVER("<Name> ho<b>x</b>st </Name>" PROTOCOL PORT TIMEOUT), true, "", " host ", "https", 443,
     30},
    {"LastDuplicateWins", SERVER(NAME PROTOCOL PORT TIMEOUT "<Name>second:8443</Name>"), true, "",
     "second:8443", "https", 443, 30},
    {"ServerFoundAtAnyDepth", "<Root><Group>" SERVER(NAME PROTOCOL PORT TIMEOUT) "</Group></Root>",
     true, "", "host", "https", 443, 30},
    {"NoServerElement", "<Configuration><Other><Deeper/></Other></Configuration>", true, ""},
    {"UnknownLeafEndsReadingEarly",
     "<Configuration><Note>x</Note><Server><Name></Name></Server></Configuration>", true, ""},
    {"EmptyProxy", "<Configuration><Proxy/>" SERVER(NAME PROTOCOL PORT TIMEOUT) "</Configuration>",
     true, "", "host", "https", 443, 30},
    {"ProxyWithUserOnly", "<Configuration><Proxy><User>me</User></Proxy></Configuration>", true, "",
     "", "", 0, 0, "|me|"},
    {"ProxyComplete",
     "<Configuration><Proxy><Url>http://proxy:3128</Url><User>me</User><Password>pw</Password>"
     "</Proxy></Configuration>",
     true, "", "", "", 0, 0, "http://proxy:3128|me|pw"},
    {"UnknownProxyChildEndsProxyReading",
     "<Configuration><Proxy><Other/><User>me</User></Proxy></Configuration>", true, ""},
    {"EmptyName", SERVER("<Name/>" PROTOCOL PORT TIMEOUT), false,
     "No /Configuration/Server/Name element"},
    {"EmptyProtocol", SERVER(NAME "<Protocol></Protocol>" PORT TIMEOUT), false,
     "No /Configuration/Server/Protocol element", "host"},
    {"PortTooLarge", SERVER(NAME PROTOCOL "<Port>65536</Port>" TIMEOUT), false,
     "Element /Configuration/Server/Port is no uint16", "host", "https"},
    {"PortNegative", SERVER(NAME PROTOCOL "<Port>-1</Port>" TIMEOUT), false,
     "Element /Configuration/Server/Port is no uint16", "host", "https"},
    {"PortHexadecimal", SERVER(NAME PROTOCOL "<Port>0x1bb</Port>" TIMEOUT), false,
     "Element /Configuration/Server/Port is no uint16", "host", "https"},
    {"TimeoutZero", SERVER(NAME PROTOCOL PORT "<Timeout>0</Timeout>"), false,
     "No /Configuration/Server/Timeout element", "host", "https", 443},
    {"TimeoutNotANumber", SERVER(NAME PROTOCOL PORT "<Timeout>abc</Timeout>"), false,
     "No /Configuration/Server/Timeout element", "host", "https", 443},
    {"TimeoutTooLarge", SERVER(NAME PROTOCOL PORT "<Timeout>4294967296</Timeout>"), false,
     "No /Configuration/Server/Timeout element", "host", "https", 443},
    {"PortAndTimeoutMissing", SERVER(NAME PROTOCOL), false,
     "Missing /Configuration/Server/Port information in file"
     "Missing /Configuration/Server/Timeout information in file",
     "host", "https"},
    {"AllMissingInKeyOrder", SERVER("<Other/>"), false,
     "Missing /Configuration/Server/Name information in file"
     "Missing /Configuration/Server/Port information in file"
     "Missing /Configuration/Server/Protocol information in file"
     "Missing /Configuration/Server/Timeout information in file"},
    {"NotWellFormed", "<Configuration><Server></Configuration>", false,
     "Opening and ending tag mismatch."},
    {"NotWellFormedInsideServer", SERVER(NAME "<Extra>x</Extr>"), false,
     "Opening and ending tag mismatch.", "host"},
    {"NotWellFormedInsideProxy", "<Configuration><Proxy><Other></Proxy>", false,
     "Opening and ending tag mismatch."},
    // A break inside an element's text ends that element's reading like the end of the document.
    {"BreakInsideServerValueCountsAsEnd", SERVER(NAME "<Port>1</Prt>"), false,
     "Missing /Configuration/Server/Protocol information in file"
     "Missing /Configuration/Server/Timeout information in file",
     "host", "", 1},
    {"BreakInsideProxyValue", "<Configuration><Proxy><User>me</User><Url></Proxy>", false, "", "",
     "", 0, 0, "|me|"},
    {"EmptyDocument", "", false, "Premature end of document."},
    // The break comes inside the last of the four elements: the Server step succeeds with an
    // empty message and the document then ends at the top level.
    {"BreaksOffAfterFourFound", SERVER(PROTOCOL PORT TIMEOUT "<Name>host</Nam>"), false, "", "host",
     "https", 443, 30},
};

class ConfigurationFile : public testing::TestWithParam<ConfigCase> {
protected:
    QString write(const char* xml) {
        const QString path = folder.filePath(QStringLiteral("config.xml"));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(xml);
        return path;
    }

    QTemporaryDir folder;
};

TEST_P(ConfigurationFile, ReadsAsExpected) {
    const ConfigCase& row = GetParam();
    ServerInteractor interactor({});
    EXPECT_EQ(interactor.readConfiguration(write(row.xml)), row.result);
    EXPECT_EQ(interactor.lastError(), row.error);
    EXPECT_EQ(interactor.isConfigurationRead(), row.result);
    const auto& server = interactor.serverSettings();
    EXPECT_EQ(server.name.toStdString(), row.serverName);
    EXPECT_EQ(server.protocol.toStdString(), row.protocol);
    EXPECT_EQ(server.port, row.port);
    EXPECT_EQ(server.timeout, row.timeout);
    const auto& proxy = interactor.proxySettings();
    EXPECT_EQ(QStringList({proxy.url, proxy.user, proxy.password}).join('|').toStdString(),
              row.proxy);
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigurationFile, testing::ValuesIn(configCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ConfigurationFileMissing, NamesThePath) {
    ServerInteractor interactor({});
    const QString path = QStringLiteral("/nonexistent/folder/config.xml");
    EXPECT_FALSE(interactor.readConfiguration(path));
    EXPECT_EQ(interactor.lastError(), "Cannot open file '/nonexistent/folder/config.xml'");
}

} // namespace
