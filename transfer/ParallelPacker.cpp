#include "transfer/ParallelPacker.h"

#include "System.h"
#include "transfer/ZipWarning.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <quazip/quazip.h>
#include <quazip/quazipfile.h>
#include <quazip/quazipnewinfo.h>
#include <zlib.h>

namespace measurement::dataExchange {

namespace {

// The single-threaded path's deflate settings (its level comes with the compression): the same
// settings give the same bytes.
constexpr int memoryLevel = 8;
// What a worker reads and deflates at a time, and the unit of output kept or spilled.
constexpr qint64 chunkSize = 64 * 1024;
// Blocks of a split file, as pigz makes them, and the history each is primed with.
constexpr qint64 blockSize = 128 * 1024;
constexpr qint64 dictionarySize = 32 * 1024;
// A zip entry's header carries its CRC, so the blocks of a split file wait for the CRC of the
// whole file: workers take it in parts of this size first, which any z_off_t can combine.
constexpr qint64 checksumSize = 64 * 1024 * 1024;
// Smaller files are never split: the blocks' flush markers and priming would not pay.
constexpr qint64 smallestSplitFile = 64 * 1024 * 1024;
// Output of whole files kept in memory for the writer, all workers together; past it, a file's
// output goes on in a spill file beside the archive. Blocks are small and always kept.
constexpr qint64 memoryBudget = 8 * 1024 * 1024;
// How far workers may run ahead of the writer, in pieces: far enough that small files keep the
// threads busy while the writer waits for a big one; two a thread at most beyond that, which
// bounds the spill files and the blocks of a split file held in memory.
constexpr size_t leastLookahead = 16;
constexpr size_t lookaheadPerThread = 2;

qint64 readFully(QFile& file, char* data, qint64 size) {
    qint64 done = 0;
    while (done < size) {
        const qint64 read = file.read(data + done, size - done);
        if (read <= 0)
            break;
        done += read;
    }
    return done;
}

} // namespace

// One worker's deflate state and buffers, reused from piece to piece.
struct ParallelPacker::Deflater {
    explicit Deflater(int level) {
        ready = deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, memoryLevel,
                             Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (ready)
            deflateEnd(&stream);
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    bool ready = false;
    z_stream stream{};
    std::vector<char> input = std::vector<char>(size_t(dictionarySize + blockSize));
    std::vector<char> output = std::vector<char>(size_t(chunkSize));
};

unsigned ParallelPacker::threadsFor(uint32_t setting) {
    if (setting == 0)
        setting = std::max(1u, std::thread::hardware_concurrency());
    return std::min(setting, maximumThreads);
}

ParallelPacker::ParallelPacker(const QDir& folder, const QStringList& names, unsigned threads,
                               const Compression& compression)
    : folder(folder), names(names), threadCount(threads), compression(compression),
      lookahead(std::max(leastLookahead, lookaheadPerThread * threads)) {
    _plan();
}

ParallelPacker::~ParallelPacker() {
    _stop();
}

// A file is split when it alone would keep one thread busy longer than the rest of the folder
// keeps the others; every other file is one piece, deflated as the single thread does.
void ParallelPacker::_plan() {
    std::vector<qint64> sizes;
    qint64 total = 0;
    for (const QString& name : names) {
        const QFileInfo info(folder.filePath(name));
        sizes.push_back(info.isDir() ? -1 : info.size());
        total += std::max<qint64>(sizes.back(), 0);
    }
    const auto add = [this](Kind kind, int entry, qint64 offset, qint64 length) {
        pieces.emplace_back();
        pieces.back().kind = kind;
        pieces.back().entry = entry;
        pieces.back().offset = offset;
        pieces.back().length = length;
    };
    for (int entry = 0; entry < names.size(); ++entry) {
        const qint64 size = sizes[size_t(entry)];
        if (size < 0) // a folder: the writer refuses it when it gets there
            continue;
        if (size < smallestSplitFile || size * qint64(threadCount) <= total) {
            add(Kind::Whole, entry, 0, -1);
            continue;
        }
        // A file to split is judged here, once: stored, it is one piece, since storing it takes
        // no deflating to share.
        if (_storedWhole(entry)) {
            add(Kind::Whole, entry, 0, -1);
            pieces.back().judged = pieces.back().stored = true;
            continue;
        }
        for (qint64 offset = 0; offset < size; offset += checksumSize)
            add(Kind::Checksum, entry, offset, std::min(checksumSize, size - offset));
        for (qint64 offset = 0; offset < size; offset += blockSize)
            add(Kind::Block, entry, offset, std::min(blockSize, size - offset));
        pieces.back().last = true; // planned, so that a file that grows still gets its end
    }
}

bool ParallelPacker::_storedWhole(int entry) {
    if (compression.level == 0)
        return true;
    if (!compression.judgesFiles())
        return false;
    QFile file(folder.filePath(names[entry]));
    DeflateStream judge(compression.level);
    const QByteArray sample =
        file.open(QIODevice::ReadOnly) ? file.read(Compression::sampleSize) : QByteArray();
    return judge.ready && compression.stores(&judge.stream, sample.constData(), sample.size());
}

bool ParallelPacker::pack(QuaZip& zip, const QString& archivePath, const QByteArray& name,
                          ProgressReporter& progress, quint64 progressTotal) {
    archiveName = name;
    spillFolder = QFileInfo(archivePath).absolutePath();
    try {
        for (unsigned n = 0; n < threadCount; ++n)
            workers.emplace_back([this] { _work(); });
    } catch (...) {
        // The system has no more threads to give: the ones running share the pieces.
    }
    if (workers.empty()) {
        zipWarning("Couldn't start packing threads");
        return false;
    }
    size_t next = 0;
    bool written = true;
    for (int entry = 0; written && entry < names.size(); ++entry)
        written = _writeEntry(zip, entry, next, progress, progressTotal);
    _stop();
    return written;
}

void ParallelPacker::_stop() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    for (std::thread& worker : workers)
        worker.join();
    workers.clear();
    for (Piece& piece : pieces)
        if (!piece.spill.isEmpty() && QFile::remove(piece.spill))
            piece.spill.clear();
}

bool ParallelPacker::_takePiece(size_t& index) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] {
        return stopping || nextPiece >= pieces.size() || nextPiece < writing + lookahead;
    });
    if (stopping || nextPiece >= pieces.size())
        return false;
    index = nextPiece++;
    return true;
}

void ParallelPacker::_work() {
    Deflater deflater(compression.level);
    QFile file; // kept open while the pieces come from the same file
    int openEntry = -1;
    size_t index = 0;
    while (_takePiece(index)) {
        Piece& piece = pieces[index];
        if (piece.entry != openEntry) {
            file.close();
            file.setFileName(folder.filePath(names[piece.entry]));
            openEntry = file.open(QIODevice::ReadOnly) ? piece.entry : -1;
        }
        QFile spill(spillFolder + QStringLiteral("/.piece-%1").arg(index));
        Failure failure = openEntry < 0 ? Failure::Open : Failure::Read;
        deflater.stream.avail_out = 0; // nothing left over from a piece that failed
        if (openEntry >= 0 && deflater.ready && deflateReset(&deflater.stream) == Z_OK)
            failure = _deflate(piece, deflater, file, spill);
        piece.text = deflater.stream.data_type == Z_TEXT;
        spill.close();
        {
            std::lock_guard<std::mutex> lock(mutex);
            piece.failure = failure;
            piece.done = true;
        }
        changed.notify_all();
    }
}

ParallelPacker::Failure ParallelPacker::_deflate(Piece& piece, Deflater& deflater, QFile& file,
                                                 QFile& spill) {
    char* const data = deflater.input.data();
    uLong crc = crc32(0, nullptr, 0);
    if (piece.kind == Kind::Checksum) {
        if (!file.seek(piece.offset))
            return Failure::Read;
        for (qint64 left = piece.length; left > 0 && !stopping;) {
            const qint64 read = readFully(file, data, std::min(left, chunkSize));
            if (read != std::min(left, chunkSize))
                return Failure::Read;
            crc = crc32(crc, reinterpret_cast<Bytef*>(data), uInt(read));
            left -= read;
        }
        piece.crc = quint32(crc);
        piece.size = piece.length;
        return Failure::None;
    }
    if (piece.kind == Kind::Block) {
        const qint64 start = std::max<qint64>(0, piece.offset - dictionarySize);
        const qint64 primed = piece.offset - start;
        if (!file.seek(start) ||
            readFully(file, data, primed + piece.length) != primed + piece.length)
            return Failure::Read;
        if (primed > 0 && deflateSetDictionary(&deflater.stream, reinterpret_cast<Bytef*>(data),
                                               uInt(primed)) != Z_OK)
            return Failure::Read;
        piece.size = piece.length;
        bytesRead += quint64(piece.length);
        return _drain(piece, deflater, data + primed, piece.length,
                      piece.last ? Z_FINISH : Z_SYNC_FLUSH, spill)
                   ? Failure::None
                   : Failure::Spill;
    }
    if (!piece.judged) {
        // The file's first bytes decide, as on one thread; deflated, they are its first input.
        const qint64 sampled =
            compression.judgesFiles() ? readFully(file, data, Compression::sampleSize) : 0;
        piece.judged = true;
        piece.stored = compression.stores(&deflater.stream, data, sampled);
        if (piece.stored)
            return Failure::None; // the writer copies it
        crc = crc32(crc, reinterpret_cast<Bytef*>(data), uInt(sampled));
        piece.size += sampled;
        bytesRead += quint64(sampled);
        if (sampled > 0 && !_drain(piece, deflater, data, sampled, Z_NO_FLUSH, spill))
            return Failure::Spill;
    }
    for (;;) {
        if (stopping)
            return Failure::None; // the writer no longer waits for it
        const qint64 read = file.read(data, chunkSize);
        if (read < 0)
            return Failure::Read;
        crc = crc32(crc, reinterpret_cast<Bytef*>(data), uInt(read));
        piece.size += read;
        bytesRead += quint64(read);
        if (!_drain(piece, deflater, data, read, read == 0 ? Z_FINISH : Z_NO_FLUSH, spill))
            return Failure::Spill;
        if (read == 0)
            break;
    }
    piece.crc = quint32(crc);
    return Failure::None;
}

// Deflates the input with the given flush and keeps every full output buffer, and what is left
// once a flush is done.
bool ParallelPacker::_drain(Piece& piece, Deflater& deflater, char* input, qint64 size, int flush,
                            QFile& spill) {
    z_stream& stream = deflater.stream;
    stream.next_in = reinterpret_cast<Bytef*>(input);
    stream.avail_in = uInt(size);
    for (;;) {
        if (stream.avail_out == 0 || stream.next_out == nullptr) {
            stream.next_out = reinterpret_cast<Bytef*>(deflater.output.data());
            stream.avail_out = uInt(chunkSize);
        }
        const int result = deflate(&stream, flush);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            return false;
        if (stream.avail_out != 0)
            break;
        if (!_keep(piece, deflater.output.data(), chunkSize, spill))
            return false;
    }
    if (flush == Z_NO_FLUSH)
        return true;
    const qint64 left = chunkSize - qint64(stream.avail_out);
    return left == 0 || _keep(piece, deflater.output.data(), left, spill);
}

bool ParallelPacker::_keep(Piece& piece, const char* data, qint64 size, QFile& spill) {
    if (!spill.isOpen()) {
        std::unique_lock<std::mutex> lock(mutex);
        if (piece.kind == Kind::Block || heldBytes + size <= memoryBudget) {
            heldBytes += size;
            piece.heldBytes += size;
            Chunk chunk{nullptr, size};
            if (!spareBuffers.empty()) {
                chunk.data = std::move(spareBuffers.back());
                spareBuffers.pop_back();
            }
            lock.unlock();
            if (!chunk.data)
                chunk.data.reset(new char[size_t(chunkSize)]);
            std::memcpy(chunk.data.get(), data, size_t(size));
            piece.chunks.push_back(std::move(chunk));
            return true;
        }
    }
    if (!spill.isOpen()) {
        if (!spill.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return false;
        piece.spill = spill.fileName();
    }
    return spill.write(data, size) == size;
}

bool ParallelPacker::_writeEntry(QuaZip& zip, int entry, size_t& next, ProgressReporter& progress,
                                 quint64 progressTotal) {
    const QString& name = names[entry];
    const QString filePath = folder.filePath(name);
    // Only a folder's own files are sent: a folder with sub-folders is refused as a whole.
    if (QFileInfo(filePath).isDir()) {
        refusedFolder = name;
        return false;
    }
    const QByteArray utf8Path = filePath.toUtf8();
    if (next >= pieces.size() || pieces[next].entry != entry) { // it was a folder when planned
        zipWarning("Couldn't open %s", utf8Path.constData());
        return false;
    }
    const auto failed = [&](const Piece& piece) {
        if (piece.failure == Failure::None)
            return false;
        if (piece.failure == Failure::Spill)
            zipWarning("Couldn't write to %s in %s", utf8Path.constData(), archiveName.constData());
        else
            zipWarning(piece.failure == Failure::Open ? "Couldn't open %s" : "Couldn't read %s",
                       utf8Path.constData());
        return true;
    };
    // The header carries the CRC and, for the single thread, zlib's guess whether the data is
    // text: a whole file's come with its piece, a split file's with its checksums and first block.
    QuaZipNewInfo info(name, filePath);
    uLong crc = 0;
    for (; pieces[next].kind == Kind::Checksum; _advance(next)) {
        if (!_waitFor(next, progress, progressTotal) || failed(pieces[next]))
            return false;
        const Piece& part = pieces[next];
        crc = info.uncompressedSize == 0 ? part.crc
                                         : crc32_combine(crc, part.crc, z_off_t(part.size));
        info.uncompressedSize += part.size;
    }
    if (!_waitFor(next, progress, progressTotal))
        return false;
    if (pieces[next].stored) {
        if (failed(pieces[next]) || !_writeStored(zip, entry, progress, progressTotal))
            return false;
        _advance(next);
        return true;
    }
    const bool whole = pieces[next].kind == Kind::Whole;
    if (whole) {
        crc = pieces[next].crc;
        info.uncompressedSize = pieces[next].size;
    }
    info.internalAttr = pieces[next].text ? Z_TEXT : 0;
    const QByteArray utf8Name = name.toUtf8();
    zip.setZip64Enabled(compression.localZip64(QFileInfo(filePath).size()));
    QuaZipFile file(&zip);
    if (!file.open(QIODevice::WriteOnly, info, nullptr, quint32(crc), Z_DEFLATED, compression.level,
                   true, -MAX_WBITS, memoryLevel, Z_DEFAULT_STRATEGY)) {
        zipWarning("Couldn't open %s in %s", utf8Name.constData(), archiveName.constData());
        return false;
    }
    debugPrint("Adding file %s", utf8Name.constData());
    for (bool more = true; more; _advance(next)) {
        if (!_waitFor(next, progress, progressTotal) || failed(pieces[next]))
            return false;
        if (!_writePiece(file, pieces[next])) {
            pieces[next].failure = Failure::Spill; // a write to the archive warns the same way
            failed(pieces[next]);
            return false;
        }
        if (!progress.update(StagePacking, bytesRead, progressTotal))
            return false;
        more = !whole && next + 1 < pieces.size() && pieces[next + 1].entry == entry;
    }
    // As with one thread, an entry's failed close shows at the next write, or when the archive
    // is closed.
    file.close();
    return true;
}

// A stored file goes from the disk into the archive on this thread, as on one thread: QuaZip takes
// its CRC as it writes, so the entry is the one a single thread writes.
bool ParallelPacker::_writeStored(QuaZip& zip, int entry, ProgressReporter& progress,
                                  quint64 progressTotal) {
    const QString& name = names[entry];
    const QString filePath = folder.filePath(name);
    const QByteArray utf8Name = name.toUtf8(), utf8Path = filePath.toUtf8();
    zip.setZip64Enabled(compression.localZip64(QFileInfo(filePath).size()));
    QuaZipFile file(&zip);
    if (!file.open(QIODevice::WriteOnly, QuaZipNewInfo(name, filePath), nullptr, 0,
                   compression.method(true), compression.entryLevel(true), false, -MAX_WBITS,
                   memoryLevel, Z_DEFAULT_STRATEGY)) {
        zipWarning("Couldn't open %s in %s", utf8Name.constData(), archiveName.constData());
        return false;
    }
    debugPrint("Adding file %s", utf8Name.constData());
    QFile input(filePath);
    if (!input.open(QIODevice::ReadOnly)) {
        zipWarning("Couldn't open %s", utf8Path.constData());
        return false;
    }
    std::vector<char> buffer(static_cast<size_t>(chunkSize));
    while (!input.atEnd()) {
        const qint64 read = input.read(buffer.data(), chunkSize);
        if (read <= 0) {
            zipWarning("Couldn't read %s", utf8Path.constData());
            return false;
        }
        if (file.write(buffer.data(), read) != read) {
            zipWarning("Couldn't write to %s in %s", utf8Path.constData(), archiveName.constData());
            return false;
        }
        bytesRead += quint64(read);
        if (!progress.update(StagePacking, bytesRead, progressTotal))
            return false;
    }
    file.close();
    return true;
}

void ParallelPacker::_advance(size_t& next) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        writing = ++next;
    }
    changed.notify_all();
}

// Waits for a piece, telling the host how far the workers have read in the meantime; false when
// the host cancels.
bool ParallelPacker::_waitFor(size_t index, ProgressReporter& progress, quint64 progressTotal) {
    std::unique_lock<std::mutex> lock(mutex);
    while (!changed.wait_for(lock, std::chrono::milliseconds(100),
                             [&] { return pieces[index].done; })) {
        lock.unlock();
        const bool goOn = progress.update(StagePacking, bytesRead, progressTotal);
        lock.lock();
        if (!goOn)
            return false;
    }
    return true;
}

bool ParallelPacker::_writePiece(QuaZipFile& file, Piece& piece) {
    for (const Chunk& chunk : piece.chunks)
        if (file.write(chunk.data.get(), chunk.size) != chunk.size)
            return false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        heldBytes -= piece.heldBytes;
        for (Chunk& chunk : piece.chunks)
            spareBuffers.push_back(std::move(chunk.data));
    }
    piece.chunks.clear();
    if (piece.spill.isEmpty())
        return true;
    QFile spill(piece.spill);
    if (!spill.open(QIODevice::ReadOnly))
        return false;
    std::vector<char> buffer(static_cast<size_t>(chunkSize));
    for (qint64 read; (read = spill.read(buffer.data(), chunkSize)) != 0;)
        if (read < 0 || file.write(buffer.data(), read) != read)
            return false;
    spill.remove();
    piece.spill.clear();
    return true;
}

} // namespace measurement::dataExchange
