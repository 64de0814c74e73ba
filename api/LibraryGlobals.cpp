#include "api/LibraryGlobals.h"

namespace measurement::dataExchange {

namespace buildInfo {
extern const char* const commit;
extern const char* const seconds;
extern const char* const platform;
} // namespace buildInfo

namespace {
char fakeApplicationName[] = "Fake application";
}

const QString uploadScriptName = QStringLiteral("uploadFile.php");
const QString pushJobScriptName = QStringLiteral("pushJob.php");
const std::string shortVersion = "v2.0.0";
const std::string fullVersion =
    shortVersion + " (" + buildInfo::seconds + ") " + buildInfo::platform;
const std::string buildCommit = buildInfo::commit;
int fakeArgumentCount = 1;
char* fakeArguments[] = {fakeApplicationName, nullptr};

} // namespace measurement::dataExchange
