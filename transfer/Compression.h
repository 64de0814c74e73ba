// How packing compresses a folder's files: zlib's level, and whether a file that deflate cannot
// shrink is stored instead. Left alone it is the compression packing always had: every file
// deflated at zlib's default level.
#pragma once

#include <QtGlobal>
#include <zlib.h>

namespace measurement::dataExchange {

struct Compression {
    // What a file is judged by: its first bytes, so the same file is stored or deflated alike on
    // any thread, whole or split. Enough to get past a recording's header.
    static constexpr qint64 sampleSize = 128 * 1024;

    int level = Z_DEFAULT_COMPRESSION;
    bool storeIncompressible = false;

    // A host chose the compression: the archive is then also made readable by Info-ZIP's unzip
    // where QuaZip's version field would stop it (ZipVersionNeeded.h).
    bool chosen() const { return level != Z_DEFAULT_COMPRESSION; }
    // Each file's first bytes decide how it is packed.
    bool judgesFiles() const { return storeIncompressible && level > 0; }
    // Whether the file that starts with sample (up to sampleSize bytes) is stored: at level 0
    // every file is; when judging, one whose sample deflate does not shrink below 97 %. stream is
    // a raw deflate stream at this level (null when not judging), reset before use and after,
    // without an output buffer.
    bool stores(z_stream* stream, const char* sample, qint64 size) const;
    // Whether an entry of this size gets zip64 fields in its local header too, where QuaZip
    // leaves the sizes 0: readers that take a stored entry's size from there (Info-ZIP's unzip)
    // then read it whole. Only once chosen, so that the default archive stays as it was.
    bool localZip64(qint64 size) const { return chosen() && size >= qint64(0xffffffff); }
    // The method and level an entry is opened with.
    int method(bool stored) const { return stored ? 0 : Z_DEFLATED; }
    int entryLevel(bool stored) const { return stored ? 0 : level; }
};

// A raw deflate stream at a level, as packing's entries use it.
class DeflateStream {
public:
    explicit DeflateStream(int level);
    ~DeflateStream();
    DeflateStream(const DeflateStream&) = delete;
    DeflateStream& operator=(const DeflateStream&) = delete;

    bool ready = false;
    z_stream stream{};
};

} // namespace measurement::dataExchange
