// The library's static strings, built when the library is loaded.
#pragma once

#include <QString>
#include <string>

namespace measurement::dataExchange {

extern const QString uploadScriptName;  // "uploadFile.php"
extern const QString pushJobScriptName; // "pushJob.php"
extern const std::string shortVersion;  // "v2.0.0"
extern const std::string fullVersion;   // short version, build time, build platform
extern const std::string buildCommit;   // 40 hex digits of the source revision
extern int fakeArgumentCount;
extern char* fakeArguments[];

} // namespace measurement::dataExchange
