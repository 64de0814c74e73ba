#include "server/CurlUpload.h"

#include "server/CurlLibrary.h"

#include <QFile>
#include <QLocale>
#include <QRandomGenerator>
#include <QSslCertificate>
#include <QSslError>
#include <chrono>
#include <memory>
#include <openssl/x509_vfy.h>

namespace measurement::dataExchange {

namespace {

using Clock = std::chrono::steady_clock;

// Only reached once available() said it loaded.
const CurlLibrary& curl() {
    return *CurlLibrary::get();
}

// The multipart body as QHttpMultiPart frames one part: what comes before the file, the file,
// what comes after.
struct Body {
    QByteArray head;
    QFile file;
    QByteArray tail;
    qint64 headSent = 0;
    qint64 tailSent = 0;
    bool fileDone = false;

    qint64 size() const { return head.size() + file.size() + tail.size(); }
};

size_t readBody(char* buffer, size_t size, size_t count, void* context) {
    auto* body = static_cast<Body*>(context);
    const qint64 room = qint64(size * count);
    if (body->headSent < body->head.size()) {
        const qint64 n = qMin(room, body->head.size() - body->headSent);
        memcpy(buffer, body->head.constData() + body->headSent, size_t(n));
        body->headSent += n;
        return size_t(n);
    }
    if (!body->fileDone) {
        const qint64 n = body->file.read(buffer, room);
        if (n < 0)
            return CURL_READFUNC_ABORT;
        if (n > 0)
            return size_t(n);
        body->fileDone = true;
    }
    const qint64 n = qMin(room, body->tail.size() - body->tailSent);
    memcpy(buffer, body->tail.constData() + body->tailSent, size_t(n));
    body->tailSent += n;
    return size_t(n);
}

// What the server sends back, and the certificate problems met on the way.
struct Answer {
    int status = 0;
    QString reason;
    bool hasRetryAfter = false;
    QByteArray retryAfter;
    QByteArray body;
    qint64 limit = 0;
    bool tooLong = false;
    bool collectTls = false;
    QByteArray leaf;                                   // the server's certificate, DER
    std::vector<std::pair<int, QByteArray>> tlsErrors; // OpenSSL's code, certificate (DER)
};

size_t readHeader(char* data, size_t size, size_t count, void* context) {
    auto* answer = static_cast<Answer*>(context);
    const QByteArray line = QByteArray(data, int(size * count)).trimmed();
    if (line.startsWith("HTTP/")) {
        // A new status line (after an interim 100) starts a new answer.
        const QList<QByteArray> parts = line.split(' ');
        answer->status = parts.value(1).toInt();
        answer->reason =
            QString::fromLatin1(line.mid(parts.value(0).size() + 1 + parts.value(1).size() + 1));
        answer->hasRetryAfter = false;
    } else if (line.toLower().startsWith("retry-after:")) {
        answer->hasRetryAfter = true;
        answer->retryAfter = line.mid(int(sizeof "retry-after:") - 1).trimmed();
    }
    return size * count;
}

size_t readAnswer(char* data, size_t size, size_t count, void* context) {
    auto* answer = static_cast<Answer*>(context);
    answer->body.append(data, int(size * count));
    if (answer->limit > 0 && answer->body.size() > answer->limit) {
        answer->tooLong = true;
        return 0; // aborts the transfer
    }
    return size * count;
}

QByteArray der(X509* certificate) {
    const int length = curl().i2d_X509(certificate, nullptr);
    if (length <= 0)
        return {};
    QByteArray bytes(length, '\0');
    auto* out = reinterpret_cast<unsigned char*>(bytes.data());
    curl().i2d_X509(certificate, &out);
    return bytes;
}

// Like Qt's own verification: every problem of the chain is noted and the check goes on, so that
// all are named; libcurl still refuses the connection afterwards, as the verify result is kept.
int noteVerification(int ok, X509_STORE_CTX* store) {
    auto* ssl = static_cast<SSL*>(
        curl().X509_STORE_CTX_get_ex_data(store, curl().SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* answer = static_cast<Answer*>(curl().SSL_CTX_get_ex_data(curl().SSL_get_SSL_CTX(ssl), 0));
    X509* certificate = curl().X509_STORE_CTX_get_current_cert(store);
    if (curl().X509_STORE_CTX_get_error_depth(store) == 0 && answer->leaf.isEmpty())
        answer->leaf = der(certificate);
    if (!ok && answer->collectTls)
        answer->tlsErrors.emplace_back(curl().X509_STORE_CTX_get_error(store), der(certificate));
    return 1;
}

CURLcode prepareTls(CURL*, void* context, void* answer) {
    auto* ssl = static_cast<SSL_CTX*>(context);
    curl().SSL_CTX_set_ex_data(ssl, 0, answer);
    curl().SSL_CTX_set_verify(ssl, SSL_VERIFY_PEER, noteVerification);
    return CURLE_OK;
}

// The QSslError that Qt names for an OpenSSL verification code.
QSslError::SslError sslError(int code) {
    switch (code) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        return QSslError::UnableToGetIssuerCertificate;
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
        return QSslError::UnableToDecryptCertificateSignature;
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
        return QSslError::UnableToDecodeIssuerPublicKey;
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return QSslError::CertificateSignatureFailed;
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return QSslError::CertificateNotYetValid;
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return QSslError::CertificateExpired;
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
        return QSslError::InvalidNotBeforeField;
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
        return QSslError::InvalidNotAfterField;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        return QSslError::SelfSignedCertificate;
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        return QSslError::SelfSignedCertificateInChain;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        return QSslError::UnableToGetLocalIssuerCertificate;
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        return QSslError::UnableToVerifyFirstCertificate;
    case X509_V_ERR_CERT_REVOKED:
        return QSslError::CertificateRevoked;
    case X509_V_ERR_INVALID_CA:
        return QSslError::InvalidCaCertificate;
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        return QSslError::PathLengthExceeded;
    case X509_V_ERR_INVALID_PURPOSE:
        return QSslError::InvalidPurpose;
    case X509_V_ERR_CERT_UNTRUSTED:
        return QSslError::CertificateUntrusted;
    case X509_V_ERR_CERT_REJECTED:
        return QSslError::CertificateRejected;
    default:
        return QSslError::UnspecifiedError;
    }
}

std::string tlsCause(QSslError::SslError code, const QByteArray& certificateDer) {
    const QSslCertificate certificate(certificateDer, QSsl::Der);
    return "TLS: " + QSslError(code, certificate).errorString().toStdString() + " (certificate '" +
           certificate.subjectDisplayName().toStdString() + "', issued by '" +
           certificate.issuerDisplayName().toStdString() + "')";
}

// The Accept-Language Qt sends, from the system's locale.
QByteArray acceptLanguage() {
    const QString locale = QLocale::system().name().replace(QLatin1Char('_'), QLatin1Char('-'));
    if (locale == QLatin1String("C"))
        return "en,*";
    if (locale.startsWith(QLatin1String("en-")))
        return (locale + QLatin1String(",*")).toLatin1();
    return (locale + QLatin1String(",en,*")).toLatin1();
}

// The error Qt's reply reports for an HTTP status of 400 or more.
QNetworkReply::NetworkError errorOfStatus(int status) {
    switch (status) {
    case 401:
        return QNetworkReply::AuthenticationRequiredError;
    case 403:
        return QNetworkReply::ContentAccessDenied;
    case 404:
        return QNetworkReply::ContentNotFoundError;
    case 405:
        return QNetworkReply::ContentOperationNotPermittedError;
    case 407:
        return QNetworkReply::ProxyAuthenticationRequiredError;
    case 409:
        return QNetworkReply::ContentConflictError;
    case 410:
        return QNetworkReply::ContentGoneError;
    case 500:
        return QNetworkReply::InternalServerError;
    case 501:
        return QNetworkReply::OperationNotImplementedError;
    case 503:
        return QNetworkReply::ServiceUnavailableError;
    default:
        return status > 500 ? QNetworkReply::UnknownServerError
                            : QNetworkReply::ProtocolInvalidOperationError;
    }
}

// A failed transfer in Qt's terms: its error and the words of its errorString().
void describeFailure(CURLcode code, bool proxied, const QUrl& url, RequestOutcome& outcome) {
    using Reply = QNetworkReply;
    switch (code) {
    case CURLE_COULDNT_CONNECT:
        outcome.error =
            proxied ? Reply::ProxyConnectionRefusedError : Reply::ConnectionRefusedError;
        outcome.errorString = proxied ? QStringLiteral("Proxy connection refused")
                                      : QStringLiteral("Connection refused");
        return;
    case CURLE_COULDNT_RESOLVE_PROXY:
        outcome.error = Reply::ProxyNotFoundError;
        outcome.errorString = QStringLiteral("Proxy not found");
        return;
    case CURLE_COULDNT_RESOLVE_HOST:
        outcome.error = Reply::HostNotFoundError;
        outcome.errorString = QStringLiteral("Host %1 not found").arg(url.host());
        return;
    case CURLE_OPERATION_TIMEDOUT:
        outcome.error = Reply::TimeoutError;
        outcome.errorString = QStringLiteral("Socket operation timed out");
        return;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CACERT_BADFILE:
        outcome.error = Reply::SslHandshakeFailedError;
        outcome.errorString = QStringLiteral("SSL handshake failed");
        return;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
        outcome.error = Reply::RemoteHostClosedError;
        outcome.errorString = QStringLiteral("Connection closed");
        return;
    case CURLE_ABORTED_BY_CALLBACK:
    case CURLE_WRITE_ERROR:
        outcome.error = Reply::OperationCanceledError;
        outcome.errorString = QStringLiteral("Operation canceled");
        return;
    default:
        outcome.error = Reply::UnknownNetworkError;
        outcome.errorString = QString::fromUtf8(curl().easy_strerror(code));
    }
}

// CURL and CURLM are both void to C++: a deleter each.
struct EasyDeleter {
    void operator()(CURL* easy) const { curl().easy_cleanup(easy); }
};
struct MultiDeleter {
    void operator()(CURLM* multi) const { curl().multi_cleanup(multi); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl().slist_free_all(list); }
};

// Runs the transfer on this thread: the progress function every 100 ms, and the stall timeout
// over bytes sent and received. Returns libcurl's result, or CURLE_ABORTED_BY_CALLBACK when the
// host cancelled or the transfer stalled.
CURLcode run(CURL* easy, const RequestControl& control, qint64 total, CurlUpload::Result& result) {
    const std::unique_ptr<CURLM, MultiDeleter> multi(curl().multi_init());
    curl().multi_add_handle(multi.get(), easy);
    Clock::time_point lastTick = Clock::now(), lastMove = lastTick;
    curl_off_t up = -1, down = -1;
    bool told = false;
    CURLcode code = CURLE_ABORTED_BY_CALLBACK;
    for (int running = 1;;) {
        if (curl().multi_perform(multi.get(), &running) != CURLM_OK)
            break;
        if (running == 0) {
            int queued = 0;
            const CURLMsg* message = curl().multi_info_read(multi.get(), &queued);
            code = message != nullptr ? message->data.result : CURLE_FAILED_INIT;
            break;
        }
        curl().multi_poll(multi.get(), nullptr, 0, 100, nullptr);
        curl_off_t nowUp = 0, nowDown = 0;
        curl().easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &nowUp);
        curl().easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &nowDown);
        const Clock::time_point now = Clock::now();
        if (nowUp != up || nowDown != down) {
            up = nowUp;
            down = nowDown;
            lastMove = now;
        }
        if (control.stallTimeoutSeconds != 0 &&
            now - lastMove >= std::chrono::seconds(control.stallTimeoutSeconds)) {
            result.stalled = true;
            break;
        }
        // Also as soon as the first bytes went out, as Qt tells.
        const bool firstBytes = up > 0 && !told;
        if (control.progress && (firstBytes || now - lastTick >= std::chrono::milliseconds(100))) {
            told = true;
            lastTick = now;
            if (!control.progress(quint64(up < 0 ? 0 : up), quint64(total))) {
                result.cancelled = true;
                break;
            }
        }
    }
    curl().multi_remove_handle(multi.get(), easy);
    // What went into the socket, as Qt's progress counts it; not what was read from the file.
    curl().easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &up);
    result.bodySent = up == total;
    if (code == CURLE_OK && control.progress)
        control.progress(quint64(total), quint64(total));
    return code;
}

} // namespace

bool CurlUpload::available() {
    return CurlLibrary::get() != nullptr;
}

bool CurlUpload::post(const Request& request, Result& result) {
    Body body;
    body.file.setFileName(request.filePath);
    if (!body.file.open(QIODevice::ReadOnly))
        return false;
    // The boundary QHttpMultiPart makes: 24 random bytes in Base64 after a fixed start.
    quint32 random[6];
    QRandomGenerator::global()->fillRange(random);
    const QByteArray boundary =
        "boundary_.oOo._" +
        QByteArray(reinterpret_cast<const char*>(random), sizeof random).toBase64();
    body.head = "--" + boundary +
                "\r\nContent-Type: application/octet-stream\r\nContent-Disposition: form-data; "
                "name=\"file\"; filename=\"" +
                request.fileName + "\"\r\n\r\n";
    body.tail = "\r\n--" + boundary + "--\r\n";
    const qint64 total = body.size();

    Answer answer;
    answer.limit = request.answerLimit;
    answer.collectTls = request.control.verified || request.control.retries;
    const std::unique_ptr<CURL, EasyDeleter> easy(curl().easy_init());
    CURL* const e = easy.get();
    // Qt's headers, so that the server sees the same request; none of libcurl's own extras.
    const QByteArray contentType =
        "Content-Type: multipart/form-data; boundary=\"" + boundary + '"';
    const QByteArray language = "Accept-Language: " + acceptLanguage();
    curl_slist* list = nullptr;
    for (const char* header :
         {contentType.constData(), "MIME-Version: 1.0", "Connection: Keep-Alive",
          language.constData(), "User-Agent: Mozilla/5.0", "Accept:", "Expect:"})
        list = curl().slist_append(list, header);
    const std::unique_ptr<curl_slist, ListDeleter> headers(list);
    const QByteArray url = request.url.toEncoded();
    curl().easy_setopt(e, CURLOPT_URL, url.constData());
    curl().easy_setopt(e, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    curl().easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl().easy_setopt(e, CURLOPT_POST, 1L);
    curl().easy_setopt(e, CURLOPT_HTTPHEADER, headers.get());
    curl().easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    curl().easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(total));
    curl().easy_setopt(e, CURLOPT_READFUNCTION, readBody);
    curl().easy_setopt(e, CURLOPT_READDATA, &body);
    curl().easy_setopt(e, CURLOPT_UPLOAD_BUFFERSIZE, 512L * 1024);
    curl().easy_setopt(e, CURLOPT_HEADERFUNCTION, readHeader);
    curl().easy_setopt(e, CURLOPT_HEADERDATA, &answer);
    curl().easy_setopt(e, CURLOPT_WRITEFUNCTION, readAnswer);
    curl().easy_setopt(e, CURLOPT_WRITEDATA, &answer);
    curl().easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, prepareTls);
    curl().easy_setopt(e, CURLOPT_SSL_CTX_DATA, &answer);
    // OpenSSL's own chain rules, as Qt leaves them (libcurl would accept a partial chain); on
    // Windows the trust Qt has there, the system's certificate store.
    long tlsOptions = CURLSSLOPT_NO_PARTIALCHAIN;
#ifdef _WIN32
    tlsOptions |= CURLSSLOPT_NATIVE_CA;
#endif
    curl().easy_setopt(e, CURLOPT_SSL_OPTIONS, tlsOptions);
    const bool proxied = request.proxy.type() == QNetworkProxy::HttpProxy;
    const QByteArray proxy = QStringLiteral("http://%1:%2")
                                 .arg(request.proxy.hostName())
                                 .arg(request.proxy.port())
                                 .toUtf8();
    const QByteArray user = request.proxy.user().toUtf8();
    const QByteArray password = request.proxy.password().toUtf8();
    if (proxied) {
        curl().easy_setopt(e, CURLOPT_PROXY, proxy.constData());
        if (!user.isEmpty()) {
            curl().easy_setopt(e, CURLOPT_PROXYUSERNAME, user.constData());
            curl().easy_setopt(e, CURLOPT_PROXYPASSWORD, password.constData());
        }
    } else {
        curl().easy_setopt(e, CURLOPT_PROXY, ""); // no proxy from the environment either
    }

    const CURLcode code = run(e, request.control, total, result);
    result.answerTooLong = answer.tooLong;
    RequestOutcome& outcome = result.outcome;
    outcome.url = request.url;
    if (answer.status > 0 && !answer.tooLong && !result.cancelled && !result.stalled) {
        outcome.status = answer.status;
        outcome.reason = answer.reason;
        outcome.hasRetryAfter = answer.hasRetryAfter;
        outcome.retryAfter = answer.retryAfter;
    }
    for (const auto& [error, certificate] : answer.tlsErrors)
        result.tlsErrors.push_back(tlsCause(sslError(error), certificate));
    if (code == CURLE_PEER_FAILED_VERIFICATION && answer.tlsErrors.empty() && answer.collectTls)
        result.tlsErrors.push_back(tlsCause(QSslError::HostNameMismatch, answer.leaf));
    if (code == CURLE_OK && answer.status >= 400) {
        outcome.error = errorOfStatus(answer.status);
        outcome.errorString = QStringLiteral("Error transferring %1 - server replied: %2")
                                  .arg(request.url.toString(), answer.reason);
    } else if (code != CURLE_OK) {
        describeFailure(result.cancelled || result.stalled ? CURLE_ABORTED_BY_CALLBACK : code,
                        proxied, request.url, outcome);
    } else {
        outcome.body = answer.body;
    }
    return true;
}

} // namespace measurement::dataExchange
