// uploadPaths: a measurement aid for the upload profile, not part of the library. Sends one file
// to uploadFile.php as a multipart form, either the way the library does (QNetworkAccessManager,
// QHttpMultiPart with the QFile as body device, a local QEventLoop) or written by the calling
// thread itself into a QTcpSocket in pieces of N KiB, with the same request bytes (same header
// lines in the same order, same part headers; only the random boundary differs). Comparing the
// two shows what Qt's hand-off of the body between the calling thread and its HTTP thread costs.
//
//     uploadPaths qnam|socketN FILE URL      prints "<mode> <seconds> <answer>"
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTimer>
#include <QUrl>
#include <cstdio>

namespace {

constexpr int timeLimitMs = 600 * 1000;

QByteArray viaAccessManager(const QString& path, const QUrl& url) {
    QFile file(path);
    QNetworkAccessManager manager;
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentTypeHeader,
                   QByteArrayLiteral("application/octet-stream"));
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QByteArrayLiteral("form-data; name=\"file\"; filename=\"") +
                       QFileInfo(path).fileName().toLocal8Bit() + '"');
    part.setBodyDevice(&file);
    auto* multiPart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    multiPart->append(part);
    QNetworkReply* reply = manager.post(QNetworkRequest(url), multiPart);
    QObject::connect(reply, &QNetworkReply::finished, multiPart, &QObject::deleteLater);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeLimitMs, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    return reply->error() == QNetworkReply::NoError ? reply->readAll() : QByteArray();
}

// The header lines QNetworkAccessManager writes for this request, in its order, with its
// Accept-Language rule.
QByteArray requestHead(const QUrl& url, const QByteArray& boundary, qint64 length) {
    const QString locale = QLocale::system().name().replace(QLatin1Char('_'), QLatin1Char('-'));
    QString languages;
    if (locale == QLatin1String("C"))
        languages = QStringLiteral("en,*");
    else if (locale.startsWith(QLatin1String("en-")))
        languages = locale + QLatin1String(",*");
    else
        languages = locale + QLatin1String(",en,*");
    return "POST " + url.path(QUrl::FullyEncoded).toLatin1() +
           " HTTP/1.1\r\nHost: " + url.authority().toLatin1() +
           "\r\nContent-Type: multipart/form-data; boundary=\"" + boundary +
           "\"\r\nMIME-Version: 1.0\r\nContent-Length: " + QByteArray::number(length) +
           "\r\nConnection: Keep-Alive\r\nAccept-Encoding: gzip, deflate\r\nAccept-Language: " +
           languages.toLatin1() + "\r\nUser-Agent: Mozilla/5.0\r\n\r\n";
}

QByteArray viaSocket(const QString& path, const QUrl& url, qint64 piece) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || piece <= 0)
        return {};
    QByteArray random(24, '\0');
    for (char& c : random)
        c = static_cast<char>(QRandomGenerator::global()->generate());
    const QByteArray boundary = "boundary_.oOo._" + random.toBase64();
    const QByteArray partHead = "--" + boundary +
                                "\r\nContent-Type: application/octet-stream\r\n"
                                "Content-Disposition: form-data; name=\"file\"; filename=\"" +
                                QFileInfo(path).fileName().toLocal8Bit() + "\"\r\n\r\n";
    const QByteArray tail = "\r\n--" + boundary + "--\r\n";
    const qint64 length = partHead.size() + file.size() + tail.size();

    QTcpSocket socket;
    QEventLoop loop;
    QByteArray answer;
    bool bodyDone = false;
    bool complete = false;
    QByteArray buffer(static_cast<int>(piece), '\0');
    // Keeps about one piece queued in the socket; refilled whenever the OS took some.
    auto refill = [&] {
        while (!bodyDone && socket.bytesToWrite() < piece) {
            const qint64 read = file.read(buffer.data(), piece);
            if (read > 0)
                socket.write(buffer.constData(), read);
            if (read <= 0 || file.atEnd()) {
                socket.write(tail);
                bodyDone = true;
            }
        }
    };
    QObject::connect(&socket, &QTcpSocket::connected, [&] {
        socket.write(requestHead(url, boundary, length) + partHead);
        refill();
    });
    QObject::connect(&socket, &QTcpSocket::bytesWritten, refill);
    QObject::connect(&socket, &QTcpSocket::readyRead, [&] {
        answer += socket.readAll();
        const int end = answer.indexOf("\r\n\r\n");
        const int field = answer.toLower().indexOf("content-length:");
        if (end < 0 || field < 0)
            return;
        const int lineEnd = answer.indexOf("\r\n", field);
        const int bodyLength = answer.mid(field + 15, lineEnd - field - 15).trimmed().toInt();
        if (answer.size() >= end + 4 + bodyLength) {
            answer = answer.mid(end + 4, bodyLength);
            complete = true;
            loop.quit();
        }
    });
    QObject::connect(&socket, &QTcpSocket::errorOccurred, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeLimitMs, &loop, &QEventLoop::quit);
    socket.connectToHost(url.host(), static_cast<quint16>(url.port(80)));
    loop.exec();
    return complete ? answer : QByteArray();
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 4) {
        std::fprintf(stderr, "usage: uploadPaths qnam|socketN FILE URL\n");
        return 2;
    }
    const QString mode = QString::fromLocal8Bit(argv[1]);
    const QString path = QString::fromLocal8Bit(argv[2]);
    const QUrl url(QString::fromLocal8Bit(argv[3]));
    QElapsedTimer timer;
    timer.start();
    const QByteArray answer = mode == QLatin1String("qnam")
                                  ? viaAccessManager(path, url)
                                  : viaSocket(path, url, mode.mid(6).toLongLong() * 1024);
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    if (answer.isEmpty()) {
        std::fprintf(stderr, "uploadPaths: %s failed\n", argv[1]);
        return 1;
    }
    std::printf("%s %.3f %s\n", argv[1], seconds, answer.constData());
    return 0;
}
