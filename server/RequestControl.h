#pragma once

#include <QtGlobal>
#include <cstdint>
#include <functional>

namespace measurement::dataExchange {

// Opt-in control of a running request; the defaults leave requests exactly as they are.
struct RequestControl {
    // Called while a request runs, with the bytes sent so far and the body's size, at least
    // every 100 ms; returning false aborts the request.
    std::function<bool(quint64 done, quint64 total)> progress;
    // Abort a request during which no bytes moved for this long; 0 waits forever.
    uint32_t stallTimeoutSeconds = 0;
    // Verified delivery: a failed request names its causes, an upload answer that names nothing
    // is a failure, and the job form is encoded so that PHP decodes every value as it was.
    bool verified = false;
    // Unicode paths: the upload names its file in UTF-8, not in the system's 8-bit encoding, so
    // the server stores it under its real name.
    bool utf8FileName = false;
    // Retries are on: failed requests are described for the attempts' list, TLS errors included.
    bool retries = false;
    // The upload request goes through libcurl, which streams the body from the calling thread.
    bool streaming = false;
};

} // namespace measurement::dataExchange
