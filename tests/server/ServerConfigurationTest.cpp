// Reading config.xml: every failure message and the traversal quirks, one document per row.
#include "ProcessingSite.h"
#include "server/ServerInteractor.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <string>

using measurement::dataExchange::ServerInteractor;

namespace {

struct ConfigCase {
    const char* name;
    const char* xml; // null: no file at all
    bool result;
    const char* error; // %1 stands for the file's path
    // name|protocol|port|timeout|url|user|password afterwards, also after a failure
    const char* settings = "||0|0|||";
};

#define SERVER(body) "<Configuration><Server>" body "</Server></Configuration>"
#define NAME "<Name>host</Name>"
#define PROTOCOL "<Protocol>https</Protocol>"
#define PORT "<Port>443</Port>"
#define TIMEOUT "<Timeout>30</Timeout>"
#define NO_UINT16 "Element /Configuration/Server/Port is no uint16"
#define NO_TIMEOUT "No /Configuration/Server/Timeout element"
#define MISSING(element) "Missing /Configuration/Server/" element " information in file"
#define MISMATCH "Opening and ending tag mismatch."

const ConfigCase configCases[] = {
    {"Complete", SERVER(NAME PROTOCOL PORT TIMEOUT), true, "", "host|https|443|30|||"},
    {"PortZeroAndLargestTimeout",
     SERVER(NAME PROTOCOL "<Port>0</Port><Timeout>4294967295</Timeout>"), true, "",
     "host|https|0|4294967295|||"},
    {"ValuesNotTrimmedChildTextDropped",
     SERVER("<Name> ho<b>x</b>st </Name>" PROTOCOL PORT TIMEOUT), true, "",
     " host |https|443|30|||"},
    {"LastDuplicateWins", SERVER(NAME PROTOCOL PORT TIMEOUT "<Name>second:8443</Name>"), true, "",
     "second:8443|https|443|30|||"},
    {"ServerFoundAtAnyDepth", "<Root><Group>" SERVER(NAME PROTOCOL PORT TIMEOUT) "</Group></Root>",
     true, "", "host|https|443|30|||"},
    {"NoServerElement", "<Configuration><Other><Deeper/></Other></Configuration>", true, ""},
    {"UnknownLeafEndsReadingEarly",
     "<Configuration><Note>x</Note><Server><Name></Name></Server></Configuration>", true, ""},
    {"EmptyProxy", "<Configuration><Proxy/>" SERVER(NAME PROTOCOL PORT TIMEOUT) "</Configuration>",
     true, "", "host|https|443|30|||"},
    {"ProxyComplete",
     "<Configuration><Proxy><Url>http://proxy:3128</Url><User>me</User><Password>pw</Password>"
     "</Proxy></Configuration>",
     true, "", "||0|0|http://proxy:3128|me|pw"},
    {"UnknownProxyChildEndsProxyReading",
     "<Configuration><Proxy><Other/><User>me</User></Proxy></Configuration>", true, ""},
    {"MissingFile", nullptr, false, "Cannot open file '%1'"},
    {"EmptyName", SERVER("<Name/>" PROTOCOL PORT TIMEOUT), false,
     "No /Configuration/Server/Name element"},
    {"EmptyProtocol", SERVER(NAME "<Protocol></Protocol>" PORT TIMEOUT), false,
     "No /Configuration/Server/Protocol element", "host||0|0|||"},
    {"PortTooLarge", SERVER(NAME PROTOCOL "<Port>65536</Port>"), false, NO_UINT16,
     "host|https|0|0|||"},
    {"PortNegative", SERVER(NAME PROTOCOL "<Port>-1</Port>"), false, NO_UINT16,
     "host|https|0|0|||"},
    {"PortHexadecimal", SERVER(NAME PROTOCOL "<Port>0x1bb</Port>"), false, NO_UINT16,
     "host|https|0|0|||"},
    // Zero and text that is no number share the message of a missing element.
    {"TimeoutZero", SERVER(NAME PROTOCOL PORT "<Timeout>0</Timeout>"), false, NO_TIMEOUT,
     "host|https|443|0|||"},
    {"TimeoutNotANumber", SERVER(NAME PROTOCOL PORT "<Timeout>abc</Timeout>"), false, NO_TIMEOUT,
     "host|https|443|0|||"},
    {"TimeoutTooLarge", SERVER(NAME PROTOCOL PORT "<Timeout>4294967297</Timeout>"), false,
     NO_TIMEOUT, "host|https|443|0|||"},
    {"AllMissingInKeyOrder", SERVER("<Other/>"), false,
     MISSING("Name") MISSING("Port") MISSING("Protocol") MISSING("Timeout")},
    {"NotWellFormed", "<Configuration><Server></Configuration>", false, MISMATCH},
    {"NotWellFormedInsideServer", SERVER(NAME "<Extra>x</Extr>"), false, MISMATCH, "host||0|0|||"},
    {"NotWellFormedInsideProxy", "<Configuration><Proxy><Other></Proxy>", false, MISMATCH},
    // A break inside an element's text ends that element's reading like the end of the document.
    {"BreakInsideServerValueCountsAsEnd", SERVER(NAME "<Port>1</Prt>"), false,
     MISSING("Protocol") MISSING("Timeout"), "host||1|0|||"},
    {"BreakInsideProxyValue", "<Configuration><Proxy><User>me</User><Url></Proxy>", false, "",
     "||0|0||me|"},
    {"EmptyDocument", "", false, "Premature end of document."},
    // The break inside the last of the four: the Server step succeeds, the document then ends.
    {"BreaksOffAfterFourFound", SERVER(PROTOCOL PORT TIMEOUT "<Name>host</Nam>"), false, "",
     "host|https|443|30|||"},
};

class ConfigurationFile : public testing::TestWithParam<ConfigCase> {};

TEST_P(ConfigurationFile, ReadsAsExpected) {
    const ConfigCase& row = GetParam();
    QTemporaryDir folder;
    const QString path = folder.filePath("config.xml");
    ASSERT_TRUE(row.xml == nullptr || dxtest::writeFile(path, row.xml));
    ServerInteractor interactor({});
    EXPECT_EQ(interactor.readConfiguration(path), row.result);
    EXPECT_EQ(interactor.lastError(), QString(row.error).replace("%1", path).toStdString());
    EXPECT_EQ(interactor.isConfigurationRead(), row.result);
    const auto& server = interactor.serverSettings();
    const auto& proxy = interactor.proxySettings();
    EXPECT_EQ(QStringList({server.name, server.protocol, QString::number(server.port),
                           QString::number(server.timeout), proxy.url, proxy.user, proxy.password})
                  .join('|')
                  .toStdString(),
              row.settings);
}

INSTANTIATE_TEST_SUITE_P(Rows, ConfigurationFile, testing::ValuesIn(configCases),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
