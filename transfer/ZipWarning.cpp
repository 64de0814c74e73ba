#include "transfer/ZipWarning.h"

#include "LogSink.h"

#include <QMessageLogger>
#include <QString>
#include <cstdarg>

void zipWarning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    // QString's formatting is the one QMessageLogger::warning applies, so the text is the same
    // on either way.
    const QString text = QString::vasprintf(format, args);
    va_end(args);
    const QByteArray utf8 = text.toUtf8();
    if (!measurement::LogSink::deliver(LogWarning, utf8.constData()))
        QMessageLogger().warning("%s", utf8.constData());
}
