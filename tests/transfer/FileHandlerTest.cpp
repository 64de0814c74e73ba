// Packing real files and folders, each archive read back with Python's zipfile and Info-ZIP's
// unzip. What packing leads to at the boundary (names, delivery, .info, an empty folder, a folder
// with a sub-folder) is tested in tests/api.
#include "transfer/FileHandler.h"
#include "UploadFixture.h"

#include <QDir>
#include <QJsonArray>
#include <QProcess>

namespace measurement::dataExchange {
struct FileHandlerProbe {
    static bool pack(FileHandler& handler, const QString& source, QString& packed) {
        return handler._packData(source, packed);
    }
};
} // namespace measurement::dataExchange

using namespace measurement::dataExchange;

namespace {

class Packing : public testing::Test {
protected:
    void SetUp() override { handler.dataType = "precalibration"; }
    bool pack(const QString& source) { return FileHandlerProbe::pack(handler, source, packed); }
    // "name method utf8-flag hex-data" by name; both readers must find every entry sound.
    QStringList entries() {
        const QJsonObject zip = dxtest::readZip(packed);
        const QJsonArray all = zip["entries"].toArray();
        EXPECT_TRUE(zip["bad"].isNull());
        EXPECT_EQ(QProcess::execute("unzip", {"-tqq", packed}), all.isEmpty()); // 1: a warning
        QStringList lines;
        for (const auto& e : all)
            lines << QString("%1 %2 %3 %4")
                         .arg(e["name"].toString())
                         .arg(e["method"].toInt())
                         .arg(e["utf8"].toBool())
                         .arg(e["data"].toString());
        lines.sort();
        return lines;
    }
    QTemporaryDir work;
    FileHandler handler;
    QString packed;
};

} // namespace

// Only the folder's readable top-level files, deflated; names flagged as UTF-8 only when one is
// not ASCII; the same archive whatever form the path takes. Each pack has a folder of its own: the
// archive of an earlier upload stays as it is.
TEST_F(Packing, FolderBecomesArchiveOfItsFiles) {
    const QString umlauts = QStringLiteral("Messung_\u00e4\u00f6\u00fc_\u20ac.csv");
    const QString folder = work.filePath(QStringLiteral("Kalibrierung_\u00d85"));
    ASSERT_TRUE(dxtest::writeFile(folder + "/" + umlauts, "x;y\n") &&
                dxtest::writeFile(folder + "/empty.bin", "") &&
                dxtest::writeFile(folder + "/.hidden", "secret") &&
                dxtest::writeFile(work.filePath("ascii/a.csv"), "1"));
    const QString forms[] = {folder, folder + "/", QDir::current().relativeFilePath(folder)};
    QString earlier;
    for (const QString& form : forms) {
        ASSERT_TRUE(pack(form)) << form.toStdString();
        EXPECT_TRUE(earlier.isEmpty() || (QFileInfo::exists(earlier) &&
                                          QFileInfo(earlier).path() != QFileInfo(packed).path()));
        earlier = packed;
        EXPECT_EQ(QFileInfo(packed).fileName(),
                  QStringLiteral("precalibration_Kalibrierung_\u00d85.zip"));
        EXPECT_TRUE(QFileInfo(packed).isAbsolute());
        EXPECT_EQ(entries(), QStringList({umlauts + " 8 1 783b790a", "empty.bin 8 1 "}));
    }
    ASSERT_TRUE(pack(work.filePath("ascii")));
    EXPECT_EQ(entries(), QStringList{"a.csv 8 0 31"});
}

TEST_F(Packing, SingleFileIsCopiedAsItIs) {
    QByteArray data;
    for (int n = 0; n < 100000; ++n)
        data.append(char(n * 7));
    ASSERT_TRUE(dxtest::writeFile(work.filePath("run.bin"), data));
    handler.dataType = "datalogger";
    ASSERT_TRUE(pack(work.filePath("run.bin")));
    EXPECT_EQ(QFileInfo(packed).fileName(), "datalogger_run.bin");
    EXPECT_TRUE(QFileInfo(packed).isAbsolute());
    EXPECT_EQ(dxtest::readFile(packed), data);
    EXPECT_FALSE(pack(work.filePath("gone.bin")));
    EXPECT_EQ(handler.error, "");
}
