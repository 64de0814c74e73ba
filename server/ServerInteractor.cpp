#include "server/ServerInteractor.h"

#include "System.h"
#include "api/LibraryGlobals.h"
#include "server/CurlUpload.h"
#include "server/StoredNameCheck.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QHttpPart>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslCertificate>
#include <QSslError>
#include <QSslSocket>
#include <QTimer>
#include <QUrl>
#include <QUrlQuery>
#include <QXmlStreamReader>
#include <climits>

namespace measurement::dataExchange {

namespace {

const QString serverElementPath = QStringLiteral("/Configuration/Server/");

std::string quoted(const char* prefix, const QString& path) {
    return prefix + path.toStdString() + "'";
}

std::string noElement(const QString& element) {
    return "No " + (serverElementPath + element).toStdString() + " element";
}

std::string notOfType(const QString& element, const char* type) {
    return "Element " + (serverElementPath + element).toStdString() + " is no " + type;
}

std::string missingElement(const QString& element) {
    return "Missing " + (serverElementPath + element).toStdString() + " information in file";
}

QString elementText(QXmlStreamReader& reader) {
    return reader.readElementText(QXmlStreamReader::SkipChildElements);
}

} // namespace

ServerInteractor::ServerInteractor(const QMap<QString, QString>& formFields, QObject* parent)
    : QObject(parent), formFields(formFields) {}

ServerInteractor::~ServerInteractor() = default;

bool ServerInteractor::readConfiguration(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        lastErrorMessage = quoted("Cannot open file '", path);
        return false;
    }
    QXmlStreamReader reader(&file);
    // Elements other than Server and Proxy are entered, not skipped, so those two are found at
    // any depth; an unknown element without children ends the reading with success.
    while (!reader.atEnd()) {
        if (!reader.readNextStartElement()) {
            if (reader.error() != QXmlStreamReader::NoError) {
                lastErrorMessage = reader.errorString().toStdString();
                return false;
            }
            configurationRead = true;
            return true;
        }
        const auto element = reader.name();
        if (element == QLatin1String("Server")) {
            if (!readServerElement(reader))
                return false;
        } else if (element == QLatin1String("Proxy")) {
            if (!readProxyElement(reader))
                return false;
        }
    }
    // The document ended or broke off inside an element that was read whole.
    return false;
}

bool ServerInteractor::readServerElement(QXmlStreamReader& reader) {
    // Ordered by key, so missing elements are reported as Name, Port, Protocol, Timeout.
    QMap<QString, bool> found{{QStringLiteral("Name"), false},
                              {QStringLiteral("Protocol"), false},
                              {QStringLiteral("Port"), false},
                              {QStringLiteral("Timeout"), false}};
    while (!reader.atEnd()) {
        if (!reader.readNextStartElement()) {
            if (reader.error() == QXmlStreamReader::NoError)
                break;
            lastErrorMessage = reader.errorString().toStdString();
            return false;
        }
        const QString element = reader.name().toString();
        bool converted = false;
        if (element == QLatin1String("Name")) {
            server.name = elementText(reader);
            if (server.name.isEmpty()) {
                lastErrorMessage = noElement(element);
                return false;
            }
        } else if (element == QLatin1String("Protocol")) {
            server.protocol = elementText(reader);
            if (server.protocol.isEmpty()) {
                lastErrorMessage = noElement(element);
                return false;
            }
        } else if (element == QLatin1String("Port")) {
            server.port = elementText(reader).toUShort(&converted, 10);
            if (!converted) {
                lastErrorMessage = notOfType(element, "uint16");
                return false;
            }
        } else if (element == QLatin1String("Timeout")) {
            server.timeout = elementText(reader).toUInt(&converted, 10);
            // A failed conversion also yields 0, so zero and garbage share the first message.
            if (server.timeout == 0) {
                lastErrorMessage = noElement(element);
                return false;
            }
            if (!converted) {
                lastErrorMessage = notOfType(element, "uint32");
                return false;
            }
        } else {
            continue;
        }
        found[element] = true;
    }
    // Several missing elements give one message, the parts run together.
    lastErrorMessage.clear();
    for (auto it = found.cbegin(); it != found.cend(); ++it) {
        if (!it.value())
            lastErrorMessage += missingElement(it.key());
    }
    return lastErrorMessage.empty();
}

bool ServerInteractor::readProxyElement(QXmlStreamReader& reader) {
    if (reader.atEnd())
        return true;
    while (reader.readNextStartElement()) {
        const auto element = reader.name();
        if (element == QLatin1String("Url"))
            proxy.url = elementText(reader);
        else if (element == QLatin1String("User"))
            proxy.user = elementText(reader);
        else if (element == QLatin1String("Password"))
            proxy.password = elementText(reader);
        if (reader.atEnd())
            return true;
    }
    if (reader.error() == QXmlStreamReader::NoError)
        return true;
    lastErrorMessage = reader.errorString().toStdString();
    return false;
}

bool ServerInteractor::uploadFile(const QString& filePath, QString& answer) {
    debugPrint("Using SSL lib version %s",
               QSslSocket::sslLibraryBuildVersionString().toStdString().c_str());
    _forgetLastFailure();
    if (_sslMissing())
        return false;
    const QString name = QFileInfo(filePath).fileName();
    const QByteArray fileName = control.utf8FileName ? name.toUtf8() : name.toLocal8Bit();
    if (control.streaming)
        return _streamUpload(filePath, fileName, answer);
    // The file object comes first so that it outlives the manager and with it the reply that
    // reads from it.
    QFile file(filePath);
    QNetworkAccessManager manager(this);
    if (!file.open(QIODevice::ReadOnly)) {
        lastErrorMessage = quoted("Could not open file '", filePath);
        return false;
    }

    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentTypeHeader,
                   QByteArrayLiteral("application/octet-stream"));
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QByteArrayLiteral("form-data; name=\"file\"; filename=\"") + fileName + '"');
    part.setBodyDevice(&file); // streamed: the file is never loaded whole
    auto* multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    multiPart->append(part);

    QNetworkRequest request(_scriptUrl(uploadScriptName));
    _prepare(request, manager);
    QNetworkReply* reply = manager.post(request, multiPart);
    currentReply = reply;
    // The body must outlive the transfer; it goes once the reply is done with it.
    connect(reply, &QNetworkReply::finished, multiPart, &QObject::deleteLater);
    // Verified delivery reads a name, never more than a name could be: Qt stops reading from the
    // server when the buffer is full, and the wait aborts the reply then.
    boundedAnswer = control.verified;
    if (boundedAnswer)
        reply->setReadBufferSize(StoredNameCheck::answerLimit + 1);
    _waitFor(reply);
    boundedAnswer = false;
    return _answered(RequestOutcome::of(reply), filePath, answer);
}

bool ServerInteractor::_streamUpload(const QString& filePath, const QByteArray& fileName,
                                     QString& answer) {
    // Says in a support log which of the two ways the body went.
    debugPrint("Streaming the upload through libcurl");
    CurlUpload::Request request;
    request.url = _scriptUrl(uploadScriptName);
    request.filePath = filePath;
    request.fileName = fileName;
    if (proxyConfigured)
        request.proxy = configuredProxy;
    request.control = control;
    request.answerLimit = control.verified ? StoredNameCheck::answerLimit : 0;
    CurlUpload::Result result;
    if (!CurlUpload::post(request, result)) {
        lastErrorMessage = quoted("Could not open file '", filePath);
        return false;
    }
    cancelled = result.cancelled;
    stallAborted = result.stalled;
    answerTooLong = result.answerTooLong;
    bodySent = result.bodySent;
    tlsErrors = result.tlsErrors;
    return _answered(result.outcome, filePath, answer);
}

bool ServerInteractor::_answered(const RequestOutcome& outcome, const QString& filePath,
                                 QString& answer) {
    if (_requestFailed(outcome))
        return false;
    answer = QString::fromUtf8(outcome.body);
    debugPrint("Received answer %s", answer.toStdString().c_str());
    if (!control.verified)
        return true;
    answer = answer.trimmed();
    if (!answer.isEmpty()) {
        lastErrorMessage =
            StoredNameCheck::problem(outcome.body, outcome.url.toString().toStdString());
        return lastErrorMessage.empty();
    }
    lastErrorMessage =
        "The server stored nothing: " + outcome.url.toString().toStdString() + " answered " +
        outcome.status.toString().toStdString() + " with an empty body. The package of " +
        std::to_string(QFileInfo(filePath).size()) +
        " bytes may be over the server's upload limit (PHP: post_max_size, upload_max_filesize)";
    return false;
}

bool ServerInteractor::pushJob(const QString& serverFileName) {
    _forgetLastFailure();
    if (_sslMissing())
        return false;
    QNetworkAccessManager manager(this);
    QUrlQuery query;
    for (auto it = formFields.cbegin(); it != formFields.cend(); ++it)
        query.addQueryItem(it.key(), it.value());
    query.addQueryItem(QStringLiteral("file"), serverFileName);

    QNetworkRequest request(_scriptUrl(pushJobScriptName));
    request.setHeader(QNetworkRequest::ContentTypeHeader,
                      QByteArrayLiteral("application/x-www-form-urlencoded"));
    _prepare(request, manager);
    QByteArray body = query.toString(QUrl::FullyEncoded).toUtf8();
    // QUrlQuery leaves "+" as it is, which a form decoder reads as a space, and takes "%20" in a
    // value as already encoded: verified delivery encodes every byte but the unreserved ones.
    if (control.verified) {
        body.clear();
        for (auto it = formFields.cbegin(); it != formFields.cend(); ++it)
            body +=
                QUrl::toPercentEncoding(it.key()) + '=' + QUrl::toPercentEncoding(it.value()) + '&';
        body += "file=" + QUrl::toPercentEncoding(serverFileName);
    }
    QNetworkReply* reply = manager.post(request, body);
    currentReply = reply;
    _waitFor(reply);
    return !_requestFailed(RequestOutcome::of(reply));
}

void ServerInteractor::fileUploadFinished(QNetworkReply* reply) {
    debugPrint("Error: %u", static_cast<unsigned>(reply->error()));
}

QUrl ServerInteractor::_scriptUrl(const QString& scriptName) const {
    // The port never goes into the URL; a Name like "host:8443" carries one when needed.
    return QUrl(QStringLiteral("%1://%2/%3").arg(server.protocol, server.name, scriptName),
                QUrl::TolerantMode);
}

void ServerInteractor::_forgetLastFailure() {
    transient = lostAnswer = false;
    retryAfter = -1;
    cause.clear();
}

bool ServerInteractor::_sslMissing() {
    // Checked for plain http as well: without a working SSL library nothing is sent.
    if (QSslSocket::supportsSsl())
        return false;
    lastErrorMessage = "No SSL support";
    return true;
}

void ServerInteractor::_waitFor(QNetworkReply* reply) {
    // Without an application object QEventLoop::exec() never returns; the handle's application
    // wrapper provides one, so reaching this point without it is a programming error.
    Q_ASSERT_X(QCoreApplication::instance() != nullptr, "ServerInteractor",
               "a request waits on a QEventLoop, which needs a QCoreApplication");
    cancelled = false;
    stallAborted = false;
    answerTooLong = false;
    bodySent = false;
    tlsErrors.clear();
    QEventLoop loop;
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (boundedAnswer)
        connect(reply, &QNetworkReply::readyRead, &loop, [this, reply] {
            if (reply->bytesAvailable() > StoredNameCheck::answerLimit) {
                answerTooLong = true;
                reply->abort();
            }
        });
    // Whether the whole body went out (into the socket, if not yet to the server). Qt ends
    // with a spurious (0, 0), and starts again from 0 when it re-sends by itself.
    connect(reply, &QNetworkReply::uploadProgress, &loop, [this](qint64 done, qint64 total) {
        if (total > 0)
            bodySent = done == total;
    });
    if (control.verified || control.retries)
        connect(reply, &QNetworkReply::sslErrors, &loop, [this](const QList<QSslError>& errors) {
            for (const QSslError& e : errors)
                tlsErrors.push_back("TLS: " + e.errorString().toStdString() + " (certificate '" +
                                    e.certificate().subjectDisplayName().toStdString() +
                                    "', issued by '" +
                                    e.certificate().issuerDisplayName().toStdString() + "')");
        });
    QTimer ticks;
    quint64 sent = 0;
    quint64 size = 0;
    // Lives as long as the loop: both connections below call it while the loop runs.
    const auto tell = [&] {
        if (!cancelled && !control.progress(sent, size)) {
            cancelled = true;
            reply->abort();
        }
    };
    if (control.progress) {
        connect(reply, &QNetworkReply::uploadProgress, &loop, [&](qint64 done, qint64 total) {
            // Qt closes an upload with a spurious (0, 0).
            if (done == 0 && total == 0)
                return;
            sent = quint64(done);
            size = quint64(total);
            tell();
        });
        // Also while nothing moves, so that the host can cancel a request that hangs.
        connect(&ticks, &QTimer::timeout, &loop, tell);
        ticks.start(100);
    }
    // No time limit unless a stall timeout was asked for: the call returns only when the reply
    // has finished.
    if (!reply->isFinished())
        loop.exec();
    stallAborted = !cancelled && !answerTooLong && control.stallTimeoutSeconds != 0 &&
                   reply->error() == QNetworkReply::OperationCanceledError;
}

void ServerInteractor::_prepare(QNetworkRequest& request, QNetworkAccessManager& manager) const {
    if (control.stallTimeoutSeconds != 0)
        request.setTransferTimeout(
            int(qMin<quint64>(quint64(control.stallTimeoutSeconds) * 1000, quint64(INT_MAX))));
    if (proxyConfigured)
        manager.setProxy(configuredProxy);
}

bool ServerInteractor::useConfiguredProxy() {
    if (proxy.url.isEmpty())
        return true;
    const QUrl url(proxy.url, QUrl::StrictMode);
    if (!url.isValid() || url.scheme() != QLatin1String("http") || url.host().isEmpty() ||
        url.port() <= 0) {
        lastErrorMessage = quoted("Invalid proxy URL '", proxy.url);
        return false;
    }
    configuredProxy = QNetworkProxy(QNetworkProxy::HttpProxy, url.host(), quint16(url.port()),
                                    proxy.user, proxy.password);
    proxyConfigured = true;
    return true;
}

bool ServerInteractor::_requestFailed(const RequestOutcome& outcome) {
    _forgetLastFailure();
    if (outcome.error == QNetworkReply::NoError)
        return false;
    if (answerTooLong)
        cause = StoredNameCheck::tooLong(outcome.url.toString().toStdString());
    else if (stallAborted)
        cause = "No data moved for " + std::to_string(control.stallTimeoutSeconds) +
                " seconds; request to '" + outcome.url.toString().toStdString() + "' aborted";
    else
        cause = _failureCause(outcome);
    lastErrorMessage = stallAborted || control.verified ? cause : outcome.errorString.toStdString();
    transient = _isTransient(outcome);
    lostAnswer = outcome.error == QNetworkReply::RemoteHostClosedError && bodySent && !cancelled;
    if (outcome.hasRetryAfter) {
        // Seconds, or an HTTP date.
        const QByteArray value = outcome.retryAfter.trimmed();
        bool number = false;
        const int seconds = value.toInt(&number);
        const QDateTime at = QDateTime::fromString(QString::fromLatin1(value), Qt::RFC2822Date);
        if (number && seconds >= 0)
            retryAfter = seconds;
        else if (!number && at.isValid())
            retryAfter =
                int(qBound<qint64>(0, QDateTime::currentDateTimeUtc().secsTo(at), INT_MAX));
    }
    return true;
}

bool ServerInteractor::_isTransient(const RequestOutcome& outcome) const {
    if (cancelled)
        return false;
    if (stallAborted)
        return true;
    if (outcome.status.isValid()) {
        const int code = outcome.status.toInt();
        return code == 408 || code == 429 || code == 500 || code == 502 || code == 503 ||
               code == 504;
    }
    switch (outcome.error) {
    case QNetworkReply::RemoteHostClosedError:
        return !bodySent;
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError: // a reset connection, among others
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyNotFoundError:
    case QNetworkReply::ProxyTimeoutError:
        return true;
    default:
        return false;
    }
}

// The causes of a failed request in the order they happened, one a line.
std::string ServerInteractor::_failureCause(const RequestOutcome& outcome) const {
    std::string causes;
    for (const std::string& error : tlsErrors)
        causes += error + "\n";
    const QString url = outcome.url.toString();
    if (outcome.status.isValid())
        return causes + url.toStdString() + " answered " + outcome.status.toString().toStdString() +
               " " + outcome.reason.toStdString();
    const std::string host = outcome.url.authority().toStdString();
    switch (outcome.error) {
    case QNetworkReply::ConnectionRefusedError:
        return causes + "Connection to " + host + " refused";
    case QNetworkReply::HostNotFoundError:
        return causes + "Host " + host + " not found";
    case QNetworkReply::TimeoutError:
        return causes + "Connection to " + host + " timed out";
    default:
        return causes + outcome.errorString.toStdString() + " (" + url.toStdString() + ")";
    }
}

} // namespace measurement::dataExchange
