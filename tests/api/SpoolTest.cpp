// The spool through the C ABI, with hosts that end between the steps as an application does: an
// item kept when its delivery fails stays after the library unloads, is listed, and leaves the
// spool only once the site named what it stored, exactly once; a torn manifest, a lock held by a
// live process and one left by a dead process each meet their rule.
#include "ProcessingSite.h"
#include "UploadFixture.h"

#include <QDir>
#include <QFile>
#include <QLockFile>

using namespace dxtest;

namespace {

class Spool : public UploadFixture {
protected:
    // An item kept after a failed upload (to a closed port, or to `site`), by a host that ended.
    QString keepOne(const ProcessingSite* site = nullptr) {
        writeServerConfig(app, site ? site->host() : "127.0.0.1:1");
        const int before = QDir(spool).entryList({"2*"}, QDir::Dirs).size();
        const Outcome kept = runHost(data + "/cal7", {"dev=0", "dt=0", "loc=2", spoolOption});
        EXPECT_EQ(kept.result, 40);
        const QStringList items = QDir(spool).entryList({"2*"}, QDir::Dirs, QDir::Name);
        EXPECT_EQ(items.size(), before + 1) << kept.errors.toStdString();
        return items.value(items.size() - 1);
    }
    Outcome send(const ProcessingSite& site) {
        writeServerConfig(app, site.host());
        return runHost("-", {"spooled=send", spoolOption, "retries=1:0"});
    }
    QStringList left() const {
        return QDir(spool).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    const QString spool = work.filePath("spool"), spoolOption = "spool=" + spool;
};

} // namespace

// Kept with a manifest and listed; sent once the site is back; the job request alone when the
// upload was stored already.
TEST_F(Spool, KeptListedAndSentOnce) {
    const QString item = keepOne();
    EXPECT_TRUE(QFile::exists(spool + "/" + item + "/precalibration_cal7.zip"));
    const Outcome listed = runHost("-", {"spooled=list", spoolOption});
    EXPECT_EQ(listed.result, 0);
    EXPECT_EQ(listed.values["spooled"],
              item + "\tprecalibration_cal7.zip\t2\t1\tUnknown error handling data");

    ProcessingSite site({"--fault", "job=busy:1"});
    EXPECT_EQ(keepOne(&site).isEmpty(), false); // stored, but the job request met a 503
    const Outcome sent = send(site);
    EXPECT_EQ(sent.result, 0) << sent.errors.toStdString();
    EXPECT_EQ(sent.values["delivered"], "2");
    EXPECT_EQ(sent.values["remaining"], "0");
    EXPECT_EQ(left(), QStringList());
    // Two uploads (the first item's, the second's before its job failed) and three job requests.
    int uploads = 0, jobs = 0;
    for (const QJsonObject& request : site.requests())
        ++(request["script"] == "uploadFile.php" ? uploads : jobs);
    EXPECT_EQ(uploads, 2);
    EXPECT_EQ(jobs, 3);
    EXPECT_EQ(QDir(site.storedFile("")).entryList(QDir::Files).size(), 2);
}

// What a crash or a second process leaves: each case is one item and one send. (A sender killed
// while it holds the lock: the crash loop of the command-line tool.)
TEST_F(Spool, TornManifestsAndLocks) {
    ProcessingSite site;
    const struct {
        const char* what;
        const char* errors; // {item} the item, {spool} the folder
    } cases[] = {
        {"torn manifest",
         "Spooled item '{item}' has an unreadable manifest; set aside as '{spool}/{item}.broken' "
         "with its packed file\n"},
        {"held by a live process", "Spooled item '{item}' is being sent by another process\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const QString item = keepOne();
        const QString lockPath = spool + "/" + item + ".lock";
        QLockFile held(lockPath);
        if (QString(c.what) == "torn manifest") {
            QFile manifest(spool + "/" + item + "/manifest.json");
            ASSERT_TRUE(manifest.open(QIODevice::ReadWrite) &&
                        manifest.resize(manifest.size() / 2));
        } else {
            ASSERT_TRUE(held.tryLock(0));
        }
        const Outcome sent = send(site);
        EXPECT_EQ(sent.result, 40);
        EXPECT_EQ(sent.values["delivered"], "0");
        EXPECT_EQ(sent.errors, QString(c.errors).replace("{item}", item).replace("{spool}", spool));
        // The packed file is never lost.
        EXPECT_TRUE(QFile::exists(spool + "/" + item + "/precalibration_cal7.zip") ||
                    QFile::exists(spool + "/" + item + ".broken/precalibration_cal7.zip"));
        held.unlock();
        QDir(spool).removeRecursively();
    }
}
