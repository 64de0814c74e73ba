// Reading config.xml: every failure message and the traversal quirks, one document per line of
// tests/data/configuration-files.tsv.
#include "UploadFixture.h"
#include "server/ServerInteractor.h"

#include <QFile>

using measurement::dataExchange::ServerInteractor;

TEST(ConfigurationFile, ReadsAsExpected) {
    QFile cases(DX_SOURCE_DIR "/tests/data/configuration-files.tsv");
    ASSERT_TRUE(cases.open(QIODevice::ReadOnly | QIODevice::Text));
    int rows = 0;
    while (!cases.atEnd()) {
        const QStringList row = QString::fromUtf8(cases.readLine()).chopped(1).split('\t');
        if (row[0].startsWith('#'))
            continue;
        ASSERT_EQ(row.size(), 5) << row.join('|').toStdString();
        SCOPED_TRACE(row[0].toStdString());
        QTemporaryDir folder;
        const QString path = folder.filePath("config.xml");
        ASSERT_TRUE(row[1] == "-" || dxtest::writeFile(path, row[1].toUtf8()));
        ServerInteractor interactor({});
        EXPECT_EQ(interactor.readConfiguration(path), row[2] == "true");
        EXPECT_EQ(interactor.lastError(), QString(row[3]).replace("%1", path).toStdString());
        EXPECT_EQ(interactor.isConfigurationRead(), row[2] == "true");
        const auto& server = interactor.serverSettings();
        const auto& proxy = interactor.proxySettings();
        EXPECT_EQ(
            QStringList({server.name, server.protocol, QString::number(server.port),
                         QString::number(server.timeout), proxy.url, proxy.user, proxy.password})
                .join('|'),
            row[4]);
        ++rows;
    }
    EXPECT_EQ(rows, 25);
}
