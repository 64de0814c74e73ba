// Talks to the processing server: reads config.xml, posts a packed item to the upload script
// and asks the job script to process it. One object serves one delivery on the caller's thread.
#pragma once

#include "server/ProxySettings.h"
#include "server/RequestControl.h"
#include "server/RequestOutcome.h"
#include "server/ServerSettings.h"

#include <QMap>
#include <QNetworkProxy>
#include <QObject>
#include <QString>
#include <string>
#include <vector>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;
class QUrl;
class QXmlStreamReader;

namespace measurement::dataExchange {

class ServerInteractor : public QObject {
    Q_OBJECT

public:
    explicit ServerInteractor(const QMap<QString, QString>& formFields, QObject* parent = nullptr);
    ~ServerInteractor() override;

    // True when the document was read and every Server element in it was valid; on false the
    // reason is in lastError() (empty when the document broke off right after a valid Server).
    bool readConfiguration(const QString& path);

    // Posts the file as the multipart part "file"; answer is the server's reply body.
    bool uploadFile(const QString& filePath, QString& answer);

    // Posts the form fields and "file" = serverFileName to the job script.
    bool pushJob(const QString& serverFileName);

    const std::string& lastError() const { return lastErrorMessage; }

    // Opt-in: progress, cancel and stall timeout of the requests that follow.
    void setRequestControl(const RequestControl& requestControl) { control = requestControl; }
    // Opt-in: use the configuration's proxy for the requests that follow. False, with the
    // reason in lastError(), when its Url is unusable; no Url means no proxy.
    bool useConfiguredProxy();
    // Why the last request failed, beyond lastError().
    bool wasCancelled() const { return cancelled; }
    bool stalled() const { return stallAborted; }
    // The last failed request's cause as verified delivery words it, whatever the mode.
    const std::string& failureCause() const { return cause; }
    // Whether the last failure may pass if the request is made again: refused, reset or timed
    // out connections, a host not found (yet), a stall, HTTP 408, 429, 500, 502, 503 and 504.
    // Not: other answers, TLS failures, a cancel, an answer that names nothing, and a connection
    // closed without an answer after the whole body went out (the server may have stored it,
    // and Qt has already sent it once more by itself).
    bool failureIsTransient() const { return transient; }
    // The last failure was a connection closed without an answer after the whole body went out.
    bool answerLost() const { return lostAnswer; }
    // The seconds of the last answer's Retry-After, or -1.
    int retryAfterSeconds() const { return retryAfter; }

    const ServerSettings& serverSettings() const { return server; }
    const ProxySettings& proxySettings() const { return proxy; }
    bool isConfigurationRead() const { return configurationRead; }

protected slots:
    // Kept for callers that connect it to QNetworkAccessManager::finished; the library itself
    // waits on the reply instead.
    void fileUploadFinished(QNetworkReply* reply);

private:
    bool readServerElement(QXmlStreamReader& reader);
    bool readProxyElement(QXmlStreamReader& reader);

    QUrl _scriptUrl(const QString& scriptName) const;
    bool _sslMissing();
    void _forgetLastFailure();
    void _prepare(QNetworkRequest& request, QNetworkAccessManager& manager) const;
    void _waitFor(QNetworkReply* reply);
    bool _streamUpload(const QString& filePath, const QByteArray& fileName, QString& answer);
    bool _answered(const RequestOutcome& outcome, const QString& filePath, QString& answer);
    bool _requestFailed(const RequestOutcome& outcome);
    std::string _failureCause(const RequestOutcome& outcome) const;
    bool _isTransient(const RequestOutcome& outcome) const;

    ServerSettings server;
    ProxySettings proxy;
    bool configurationRead = false;
    QNetworkReply* currentReply = nullptr; // not owned; valid only while a request runs
    QMap<QString, QString> formFields;
    std::string lastErrorMessage;
    RequestControl control;
    QNetworkProxy configuredProxy{QNetworkProxy::DefaultProxy};
    bool proxyConfigured = false;
    bool cancelled = false;
    bool stallAborted = false;
    bool transient = false;
    bool bodySent = false;
    bool lostAnswer = false;
    bool boundedAnswer = false; // the running request's answer is read up to a limit
    bool answerTooLong = false;
    int retryAfter = -1;
    std::string cause;
    std::vector<std::string> tlsErrors; // of the running request, in verified delivery
};

} // namespace measurement::dataExchange
