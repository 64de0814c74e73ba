#include "transfer/ZipVersionNeeded.h"

#include <QByteArray>
#include <QFile>
#include <QtEndian>

namespace measurement::dataExchange {

namespace {

constexpr quint32 endSignature = 0x06054b50;
constexpr quint32 zip64EndSignature = 0x06064b50;
constexpr quint32 zip64LocatorSignature = 0x07064b50;
constexpr quint32 centralSignature = 0x02014b50;
constexpr qint64 endSize = 22, locatorSize = 20, zip64EndSize = 56, centralSize = 46;
constexpr quint16 quaZipUtf8Version = 63, zip64Version = 45, deflateVersion = 20, storeVersion = 10;
constexpr quint16 utf8Flag = 0x800, zip64ExtraId = 0x0001;

quint16 at16(const QByteArray& b, qint64 offset) {
    return qFromLittleEndian<quint16>(b.constData() + offset);
}
quint32 at32(const QByteArray& b, qint64 offset) {
    return qFromLittleEndian<quint32>(b.constData() + offset);
}
quint64 at64(const QByteArray& b, qint64 offset) {
    return qFromLittleEndian<quint64>(b.constData() + offset);
}

QByteArray readAt(QFile& file, qint64 offset, qint64 size) {
    if (offset < 0 || !file.seek(offset))
        return {};
    QByteArray bytes = file.read(size);
    return bytes.size() == size ? bytes : QByteArray();
}

bool writeAt(QFile& file, qint64 offset, const QByteArray& bytes) {
    return file.seek(offset) && file.write(bytes) == bytes.size();
}

bool hasZip64Extra(const QByteArray& cd, qint64 extra, qint64 end) {
    while (extra + 4 <= end) {
        if (at16(cd, extra) == zip64ExtraId)
            return true;
        extra += 4 + at16(cd, extra + 2);
    }
    return false;
}

// The central directory's offset and size, from the end record (the one without a comment, as
// QuaZip writes it) and, where that says so, from the zip64 end record, whose version it lowers.
bool locateDirectory(QFile& file, qint64& offset, qint64& size) {
    const qint64 endAt = file.size() - endSize;
    const QByteArray end = readAt(file, endAt, endSize);
    if (end.isEmpty() || at32(end, 0) != endSignature)
        return false;
    offset = at32(end, 16);
    size = at32(end, 12);
    if (offset != 0xffffffff && at16(end, 10) != 0xffff)
        return true;
    const QByteArray locator = readAt(file, endAt - locatorSize, locatorSize);
    if (locator.isEmpty() || at32(locator, 0) != zip64LocatorSignature)
        return false;
    const auto zip64At = qint64(at64(locator, 8));
    QByteArray zip64 = readAt(file, zip64At, zip64EndSize);
    if (zip64.isEmpty() || at32(zip64, 0) != zip64EndSignature)
        return false;
    offset = qint64(at64(zip64, 48));
    size = qint64(at64(zip64, 40));
    if (at16(zip64, 14) != quaZipUtf8Version)
        return true;
    qToLittleEndian<quint16>(zip64Version, zip64.data() + 14);
    return writeAt(file, zip64At + 14, zip64.mid(14, 2));
}

} // namespace

bool lowerVersionNeeded(const QString& path) {
    QFile file(path);
    qint64 offset = 0, size = 0;
    if (!file.open(QIODevice::ReadWrite) || !locateDirectory(file, offset, size))
        return false;
    QByteArray cd = readAt(file, offset, size);
    if (cd.size() != size)
        return false;
    bool changed = false;
    for (qint64 at = 0; at + centralSize <= size;) {
        if (at32(cd, at) != centralSignature)
            return false;
        const qint64 extra = at + centralSize + at16(cd, at + 28);
        const qint64 next = extra + at16(cd, at + 30) + at16(cd, at + 32);
        if (next > size)
            return false;
        if (at16(cd, at + 6) == quaZipUtf8Version && (at16(cd, at + 8) & utf8Flag) != 0) {
            const quint16 needed = hasZip64Extra(cd, extra, extra + at16(cd, at + 30))
                                       ? zip64Version
                                   : at16(cd, at + 10) == 0 ? storeVersion
                                                            : deflateVersion;
            qToLittleEndian<quint16>(needed, cd.data() + at + 6);
            changed = true;
        }
        at = next;
    }
    return !changed || writeAt(file, offset, cd);
}

} // namespace measurement::dataExchange
