// The upload request made by libcurl instead of Qt: the multipart body is read from the file in
// large pieces on the calling thread, where Qt's HTTP thread asks that thread for it 16 KiB at a
// time and so caps the rate near 1 Gbit/s. The request is the one Qt makes, body byte for byte,
// and its end is described as Qt would describe it, so that causes and messages stay the same.
#pragma once

#include "server/RequestControl.h"
#include "server/RequestOutcome.h"

#include <QByteArray>
#include <QNetworkProxy>
#include <QString>
#include <QUrl>
#include <string>
#include <vector>

namespace measurement::dataExchange {

class CurlUpload {
public:
    struct Request {
        QUrl url;
        QString filePath;
        QByteArray fileName; // as the part's Content-Disposition names it
        QNetworkProxy proxy{QNetworkProxy::NoProxy};
        RequestControl control;
        qint64 answerLimit = 0; // abort past this many answer bytes; 0: no limit
    };

    // How it ended, with what Qt's reply and the wait around it would have told.
    struct Result {
        RequestOutcome outcome;
        bool cancelled = false;
        bool stalled = false;
        bool answerTooLong = false;
        bool bodySent = false;
        std::vector<std::string> tlsErrors; // when verified delivery or retries are on
    };

    // Whether this build has libcurl.
    static bool available();
    // False when the file cannot be opened; nothing is sent then.
    static bool post(const Request& request, Result& result);
};

} // namespace measurement::dataExchange
