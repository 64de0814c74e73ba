// A build without libcurl: the streaming upload cannot be switched on, so post() is never called.
#include "server/CurlUpload.h"

namespace measurement::dataExchange {

bool CurlUpload::available() {
    return false;
}

bool CurlUpload::post(const Request&, Result&) {
    return false;
}

} // namespace measurement::dataExchange
