// A request that would wait on an event loop without any QCoreApplication (where Qt blocks for
// ever) stops a debug build at once. This executable deliberately makes no application object.
#include "server/ServerInteractor.h"

#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using measurement::dataExchange::ServerInteractor;

TEST(ServerWithoutApplication, RequestAssertsInDebugBuilds) {
#ifdef QT_NO_DEBUG
    GTEST_SKIP() << "the assertion exists in debug builds only";
#else
    QTemporaryDir folder;
    QFile config(folder.filePath("config.xml"));
    ASSERT_TRUE(config.open(QIODevice::WriteOnly));
    config.write("<Configuration><Server><Name>127.0.0.1:9</Name><Protocol>http</Protocol>"
                 "<Port>9</Port><Timeout>1</Timeout></Server></Configuration>");
    config.close();
    ServerInteractor server({});
    ASSERT_TRUE(server.readConfiguration(config.fileName()));
    EXPECT_DEATH(server.pushJob("x"), "a request waits on a QEventLoop");
#endif
}
