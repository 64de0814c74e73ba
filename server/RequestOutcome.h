// How a request ended, in the terms Qt's replies give it, whichever transport made it: the
// failure's cause, its wording and whether it may pass are then decided in one place.
#pragma once

#include <QByteArray>
#include <QNetworkReply>
#include <QString>
#include <QUrl>
#include <QVariant>

namespace measurement::dataExchange {

struct RequestOutcome {
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString errorString;
    QUrl url;
    QVariant status; // the HTTP status; invalid when no answer came
    QString reason;  // the status line's reason phrase
    bool hasRetryAfter = false;
    QByteArray retryAfter;
    QByteArray body;

    // What the reply says; its body is read (and so taken from it) only when it succeeded.
    static RequestOutcome of(QNetworkReply* reply) {
        RequestOutcome outcome;
        outcome.error = reply->error();
        outcome.errorString = reply->errorString();
        outcome.url = reply->url();
        outcome.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        outcome.reason = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        outcome.hasRetryAfter = reply->hasRawHeader("Retry-After");
        outcome.retryAfter = reply->rawHeader("Retry-After");
        if (outcome.error == QNetworkReply::NoError)
            outcome.body = reply->readAll();
        return outcome;
    }
};

} // namespace measurement::dataExchange
