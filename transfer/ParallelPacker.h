// Packs the files of a folder on several threads. Workers deflate with the settings of the
// single-threaded path; the calling thread writes their output into the archive, in the folder's
// order, as already-compressed entries, so the archive is byte for byte the one a single thread
// writes. A file too big to share the work is deflated in blocks on every thread instead, each
// block primed with the 32 KiB before it: one valid deflate stream, other bytes, same contents.
#pragma once

#include "transfer/Compression.h"
#include "transfer/ProgressReporter.h"

#include <QByteArray>
#include <QDir>
#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class QFile;
class QuaZip;
class QuaZipFile;

namespace measurement::dataExchange {

class ParallelPacker {
public:
    // The most threads a handle can ask for: each holds about half a MiB of deflate state and
    // buffers, and peak memory must stay small at any count.
    static constexpr uint32_t maximumThreads = DATAEXCHANGE_MAX_PACKING_THREADS;
    // A handle's setting made concrete: 0 is one per available core, at most maximumThreads.
    static unsigned threadsFor(uint32_t setting);

    ParallelPacker(const QDir& folder, const QStringList& names, unsigned threads,
                   const Compression& compression = {});
    ~ParallelPacker();
    ParallelPacker(const ParallelPacker&) = delete;
    ParallelPacker& operator=(const ParallelPacker&) = delete;

    // Writes every name of the folder into zip, an archive open for creation at archivePath
    // (archiveName: as warnings show it), reporting progress and stopping when the host
    // cancels. A failure warns as the
    // single-threaded path does, or names the sub-folder that refused the folder in
    // refusedFolder. No spill file outlives it.
    bool pack(QuaZip& zip, const QString& archivePath, const QByteArray& archiveName,
              ProgressReporter& progress, quint64 progressTotal);

    QString refusedFolder;

private:
    enum class Failure { None, Open, Read, Spill };
    // A whole file; a part of a split file whose CRC is taken; or a block of it to deflate.
    enum class Kind { Whole, Checksum, Block };
    // Output kept in memory for the writer: a buffer of chunkSize bytes and how much it holds.
    struct Chunk {
        std::unique_ptr<char[]> data;
        qint64 size = 0;
    };
    // One worker's task.
    struct Piece {
        Kind kind = Kind::Whole;
        int entry = 0;
        qint64 offset = 0;
        qint64 length = -1; // -1: the whole file
        bool last = false;  // a split file's last block, which ends the deflate stream
        // Written by the worker, read by the writer once done is set.
        std::vector<Chunk> chunks;
        qint64 heldBytes = 0;
        QString spill; // the file holding the rest of the output, once memory was full
        quint32 crc = 0;
        qint64 size = 0;
        bool text = false;   // zlib took the data for text, which the central header records
        bool judged = false; // whether the file is stored is known (a split file's, when planned)
        bool stored = false; // the writer copies the file into the archive as it is
        Failure failure = Failure::None;
        bool done = false;
    };
    struct Deflater;

    void _plan();
    bool _storedWhole(int entry);
    void _work();
    bool _takePiece(size_t& index);
    Failure _deflate(Piece& piece, Deflater& deflater, QFile& file, QFile& spill);
    bool _drain(Piece& piece, Deflater& deflater, char* input, qint64 size, int flush,
                QFile& spill);
    bool _keep(Piece& piece, const char* data, qint64 size, QFile& spill);
    bool _writeEntry(QuaZip& zip, int entry, size_t& next, ProgressReporter& progress,
                     quint64 progressTotal);
    bool _waitFor(size_t index, ProgressReporter& progress, quint64 progressTotal);
    bool _writePiece(QuaZipFile& file, Piece& piece);
    bool _writeStored(QuaZip& zip, int entry, ProgressReporter& progress, quint64 progressTotal);
    void _advance(size_t& next);
    void _stop();

    const QDir folder;
    const QStringList names;
    const unsigned threadCount;
    const Compression compression;
    const size_t lookahead;
    QString spillFolder;
    QByteArray archiveName;
    std::vector<Piece> pieces;
    std::vector<std::thread> workers;
    std::mutex mutex;
    std::condition_variable changed;
    size_t nextPiece = 0; // the first piece no worker has taken
    size_t writing = 0;   // the piece the writer waits for or writes
    qint64 heldBytes = 0; // output kept in memory, all pieces together
    // Buffers written out, for workers to fill again: a pack keeps the memory its busiest moment
    // needed, however big the folder, instead of leaving every worker's heap fragmented.
    std::vector<std::unique_ptr<char[]>> spareBuffers;
    std::atomic<bool> stopping{false};
    std::atomic<quint64> bytesRead{0};
};

} // namespace measurement::dataExchange
