#include "transfer/Compression.h"

namespace measurement::dataExchange {

namespace {

// A file is stored when deflate leaves more than 97 % of its sample. Random bytes, compressed
// images and packed recordings come out at 100.03 % (deflate falls back to stored blocks), so
// they are stored; float samples of a sensor shrink to about 89 % and CSV to 35-41 % at every
// level, so they stay far from the line. A file stored near it costs at most 3 % of its size.
constexpr qint64 keptPercent = 97;
constexpr int memoryLevel = 8; // zlib's default, as every entry uses

// Bytes deflate makes of data, which the stream finishes; the output is counted, not kept.
qint64 deflatedSize(z_stream& stream, const char* data, qint64 size) {
    Bytef scratch[16 * 1024];
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
    stream.avail_in = uInt(size);
    qint64 total = 0;
    for (int result = Z_OK; result == Z_OK;) {
        stream.next_out = scratch;
        stream.avail_out = sizeof scratch;
        result = deflate(&stream, Z_FINISH);
        total += qint64(sizeof scratch - stream.avail_out);
        if (result != Z_OK && result != Z_STREAM_END)
            return size + 1; // deflate failed: a file it cannot shrink either
    }
    return total;
}

} // namespace

bool Compression::stores(z_stream* stream, const char* sample, qint64 size) const {
    if (level == 0)
        return true;
    if (!judgesFiles() || stream == nullptr || size == 0 || deflateReset(stream) != Z_OK)
        return false;
    const qint64 deflated = deflatedSize(*stream, sample, size);
    deflateReset(stream);
    stream->next_out = nullptr; // the counting buffer is gone
    stream->avail_out = 0;
    return deflated * 100 > size * keptPercent;
}

DeflateStream::DeflateStream(int level) {
    ready = deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, memoryLevel, Z_DEFAULT_STRATEGY) ==
            Z_OK;
}

DeflateStream::~DeflateStream() {
    if (ready)
        deflateEnd(&stream);
}

} // namespace measurement::dataExchange
