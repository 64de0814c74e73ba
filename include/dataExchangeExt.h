/*
 * dataExchange extensions: progress and cancel, a stall timeout, removal of the packed item, the
 * proxy of config.xml, verified delivery, packing on several threads, the compression, Unicode
 * paths, retries, a spool and a log callback. Each is opt-in, per handle but for the process-wide
 * log callback; a library whose extensions are never called behaves exactly as one without them.
 *
 *     static int32_t onProgress(uint32_t stage, uint64_t done, uint64_t total, void* context) {
 *         printf("stage %u: %llu of %llu\n", stage, (unsigned long long)done,
 *                (unsigned long long)total);
 *         return *(volatile int*)context;          // non-zero cancels the upload
 *     }
 *     int cancel = 0;
 *     dataExchangeSetProgressCallback(h, onProgress, &cancel);
 *     dataExchangeSetStallTimeout(h, 30);
 *     dataExchangeUploadData(h, "/data/cal7", sizeof name, name, &used);
 */
#ifndef DATAEXCHANGE_EXT_H
#define DATAEXCHANGE_EXT_H

#include "dataExchange.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The stages an upload goes through, as the progress callback is told. */
typedef enum dataExchangeStage {
    StagePacking = 1,      /* bytes of the source read / bytes of the files to pack or copy */
    StageSharedFolder = 2, /* 0 of 1, then 1 of 1 */
    StageUpload = 3,       /* bytes sent / bytes of the request (first the packed item's size,
                              then the whole request body's once sending starts) */
    StageJobRequest = 4,   /* 0 of 1 while the job request runs, then 1 of 1 */
    StageRetryWait = 5     /* milliseconds waited / milliseconds of the wait before a retry */
} dataExchangeStage;

/* Called on the thread that called dataExchangeUploadData, from inside that call: once at the
 * start and once at the end of each stage, and in between at most about ten times a second.
 * A non-zero result cancels: packing stops, a running request is aborted, no further destination
 * is tried, and the upload returns DataHandlingFailed with the single message "Upload cancelled
 * by the host". The answer to a stage's final call is ignored once the data has been delivered.
 * The source data is never touched. */
typedef int32_t(DATAEXCHANGE_CALL* dataExchangeProgressCallback)(uint32_t stage, uint64_t done,
                                                                 uint64_t total, void* context);

/* dataExchangeSetProgressCallback() : sets (or, with NULL, removes) the handle's callback;
 * context is handed back unchanged. @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetProgressCallback(
    dataExchangeLibraryImp* handle, dataExchangeProgressCallback callback, void* context);

/* dataExchangeSetStallTimeout() : 0 (the default) waits for the server forever. Otherwise a
 * request during which no bytes moved for that many seconds is aborted, and the upload fails
 * with DataHandlingFailed and "No data moved for N seconds; request to '<url>' aborted".
 * @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStallTimeout(dataExchangeLibraryImp* handle, uint32_t seconds);

/* dataExchangeSetRemovePackage() : 0 (the default) keeps packed items in their temporary folder
 * until the library is unloaded. Non-zero: each upload removes its own temporary folder when it
 * returns, whatever the outcome (an item moved into the shared folder is not touched).
 * @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetRemovePackage(dataExchangeLibraryImp* handle, uint32_t enable);

/* dataExchangeSetUseConfiguredProxy() : 0 (the default) ignores the Proxy element of
 * config.xml. Non-zero: its Url (http://host:port) with User and Password is used as the HTTP
 * proxy of both requests (CONNECT for https); a config.xml without a proxy Url means no proxy.
 * An unusable Url fails the server route with "Invalid proxy URL '<url>'".
 * @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUseConfiguredProxy(dataExchangeLibraryImp* handle, uint32_t enable);

/* dataExchangeSetVerifiedDelivery() : 0 (the default) reports an upload as the requests report
 * it. 1: nothing counts as delivered that the server did not name as stored. An empty or blank
 * upload answer fails the upload (DataHandlingFailed) with its likely cause and no job request;
 * so does an answer that is not a file name (one line of UTF-8 without control characters, '/'
 * or '\', not "." or "..", at most 255 bytes; read up to 4096 bytes and no further), with what
 * came back, escaped, and why (a PHP notice: display_errors; an HTML page);
 * the answer is passed on without surrounding white space; the job form is encoded so that a
 * form decoder (PHP) gets every value back byte for byte; a failed request adds its causes
 * (HTTP status and reason, TLS errors, refused, not found, timed out), one a line; an empty
 * folder or one with an unreadable file is refused before anything is packed, and a failed
 * upload says where the packed item stays.
 * @return Success; InvalidArgument for a NULL handle, or for a value other than 0 and 1 with
 * the message "Verified delivery is 0 (off) or 1 (on), not <value>". */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetVerifiedDelivery(dataExchangeLibraryImp* handle, uint32_t enable);

/* dataExchangeGetStoredName() : the name the server answered for the last upload of this handle,
 * under which it stored the item (a server that keeps every upload may answer "cal7-1.zip" for
 * "cal7.zip"); "" when the last upload got no answer. Copied as dataExchangeGetLastErrors copies:
 * @return Success, BufferTooSmall (first bufferSize bytes, no terminator), InvalidArgument for a
 * NULL handle or a NULL buffer with a non-zero size. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetStoredName(dataExchangeLibraryImp* handle,
                                                                     size_t bufferSize,
                                                                     char* buffer);

/* dataExchangeSetPackingThreads() : the threads that pack a folder. 1 (the default) packs on
 * the calling thread. 0 is one thread per available core, N > 1 is N threads, at most 32.
 * With more than one thread the folder's files are deflated side by side and written in the
 * folder's order: the archive is byte for byte the one a single thread writes. Except for a
 * file of 64 MiB or more that holds more than the folder's bytes divided by the threads: it is
 * deflated in 128 KiB blocks on every thread (as pigz does), so its bytes differ while its
 * contents, its CRC and every reader's view stay the same. A single file is copied, never
 * packed, whatever the setting. Messages and results are those of one thread; a failed or
 * cancelled pack leaves no file and no folder behind. Progress calls and cancelling stay on
 * the calling thread; cancelling stops every worker within a second.
 * @return Success; ValueCropped when threads is over 32, with 32 kept and the message "Packing
 * threads are at most 32; <threads> was cropped"; InvalidArgument for a NULL handle. */
#define DATAEXCHANGE_MAX_PACKING_THREADS 32
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetPackingThreads(dataExchangeLibraryImp* handle, uint32_t threads);

/* dataExchangeSetCompression() : how a folder's files are compressed. Never called, every file
 * is deflated at zlib's default level (6), as always. level 1 (fastest) to 9 (smallest) deflates
 * at that level; 0 stores every file as it is (method 0). storeIncompressible 1: a file whose
 * first 128 KiB deflate at the level leaves above 97 % of their size (random bytes, compressed
 * images, packed recordings) is stored instead, the rest deflated at the level. The decision is
 * the file's own, so a file split among threads is stored or deflated as a whole, and at every
 * level, storing or not, the archive is byte for byte the same at every thread count.
 * Once called, the archive is also readable by Info-ZIP's unzip 6.0 where QuaZip marks an entry
 * of 4 GiB or more with a non-ASCII name as needing version 6.3: that field becomes 4.5. Level 6
 * without storing is otherwise the default's archive.
 * @return Success; ValueCropped when level is over 9, with 9 kept and "Compression level is at
 * most 9; <level> was cropped"; InvalidArgument for a NULL handle, or for storeIncompressible
 * other than 0 and 1 with "Storing what does not shrink is 0 (off) or 1 (on), not <value>", the
 * setting unchanged. */
#define DATAEXCHANGE_MAX_COMPRESSION_LEVEL 9
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetCompression(
    dataExchangeLibraryImp* handle, uint32_t level, uint32_t storeIncompressible);

/* dataExchangeSetUnicodePaths() : 0 (the default) takes the path of dataExchangeUploadData as
 * the system's narrow file functions do: on Windows in the ANSI code page, where a name outside
 * it cannot even be given and a temporary folder under a non-ASCII user name fails packing.
 * 1: the path is UTF-8 on every platform, and on Windows every file-system step of the upload
 * (the existence check, the temporary folder from GetTempPathW, packing, the copy, the move to
 * the shared folder, the ".info", the removal of temporary folders) works on the real name,
 * whatever its characters; messages and debug lines carry names in UTF-8. A path that is not
 * UTF-8 is refused with ReadFailed and "File or folder name is not valid UTF-8 at byte offset
 * <n>: '<path, bytes outside UTF-8 as \xNN>'" (n counts from 0). On Linux, where names already
 * are UTF-8, nothing else changes. With the mode off and verified delivery on, a path (of the
 * item, or of the temporary folder) that is not UTF-8 fails the upload with DataHandlingFailed
 * and a message that names this switch.
 * @return Success; InvalidArgument for a NULL handle, or for a value other than 0 and 1 with
 * the message "Unicode paths are 0 (off) or 1 (on), not <value>". */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUnicodePaths(dataExchangeLibraryImp* handle, uint32_t enable);

/* dataExchangeSetRetries() : 0 (the default) makes one attempt, as always. N > 0: a server
 * delivery that fails for a passing fault is tried again, up to N more times, within the upload
 * call. Passing faults: a refused or reset connection, a host not found, a stall timeout, HTTP
 * 408, 429, 500, 502, 503 and 504. Never tried again: other answers, TLS failures, a cancel, an
 * answer that names nothing (verified delivery), a connection closed without an answer after
 * the whole item went out (the server may have stored it). Before attempt k the upload waits
 * firstDelayMilliseconds * 2^(k-2), capped at 60 s, half of it plus up to as much again at
 * random; a Retry-After of the server (up to 10 minutes) is honoured when it asks for longer.
 * The wait is the progress stage StageRetryWait, and a cancel ends it at once. When the item was
 * stored and only the job request failed, only the job request is made again. If the last
 * attempt fails, the error list has one line per attempt: "Attempt <k> of <n>: <cause>".
 * @return Success; ValueCropped when retries is over 20, with 20 kept and "Retries are at most
 * 20; <retries> was cropped"; InvalidArgument for a NULL handle. */
#define DATAEXCHANGE_MAX_RETRIES 20
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetRetries(dataExchangeLibraryImp* handle,
                                                                  uint32_t retries,
                                                                  uint32_t firstDelayMilliseconds);

/* dataExchangeSetSpoolFolder() : NULL or "" (the default) keeps no item. A folder (UTF-8, made
 * when first needed): an item whose delivery still fails after the retries (not after a cancel)
 * is kept there, in a sub-folder of its own with the packed file and a manifest (options,
 * destinations, the stored name if the upload went through, attempts, the last causes), and
 * the error list ends with "The packed item is kept in the spool as '<folder>'". The spool's
 * items are the host's data: unloading the library never removes them.
 * @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetSpoolFolder(dataExchangeLibraryImp* handle, const char* folder);

/* dataExchangeSendSpooled() : delivers every item of the handle's spool folder, oldest first,
 * with the options it was kept with, this handle's retries, stall timeout, proxy and progress
 * callback, and verified delivery always on: an item leaves the spool only once the server named
 * what it stored. An item another process is sending is left to it; an item whose manifest
 * cannot be read is set aside (renamed to "<item>.broken", its packed file kept) with a message.
 * delivered and remaining (each may be NULL) receive the counts.
 * @return Success when nothing remains; DataHandlingFailed with one message per item that
 * remains; InvalidArgument for a NULL handle, or with "No spool folder set" when none is. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSendSpooled(dataExchangeLibraryImp* handle,
                                                                   uint32_t* delivered,
                                                                   uint32_t* remaining);

/* dataExchangeListSpooled() : the spool's items, one line each, oldest first:
 * "<item>\t<packed name>\t<destinations>\t<attempts>\t<last cause>\n", the destinations as
 * "1", "2" or "1,2", the last cause's line breaks as blanks; "" for an empty spool. Copied as
 * dataExchangeGetLastErrors copies: @return Success, BufferTooSmall (first bufferSize bytes, no
 * terminator), InvalidArgument for a NULL handle, a NULL buffer with a non-zero size, or with
 * "No spool folder set". */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeListSpooled(dataExchangeLibraryImp* handle,
                                                                   size_t bufferSize, char* buffer);

/* dataExchangeSetStreamingUpload() : 0 (the default) posts the upload through Qt, whose HTTP
 * thread reads the body from the calling thread 16 KiB at a time and so caps the rate near
 * 1 Gbit/s. 1: the upload request goes through libcurl, which streams the body from the calling
 * thread in large writes; the job request stays with Qt. The request is the same (the body byte for
 * byte, the same headers but for their order), and so are progress, cancel, the stall timeout, the
 * proxy, TLS verification against the same trust, verified delivery's causes and retries. Not the
 * same: Qt sends a request once more by itself when the connection closes before the answer,
 * libcurl does not (a retry does, where allowed); with a proxy that wants a password, libcurl sends
 * it at once where Qt asks first; a failure outside these causes is worded by libcurl.
 * @return Success; InvalidArgument for a NULL handle, or for a value other than 0 and 1 with the
 * message "Streaming upload is 0 (off) or 1 (on), not <value>"; NotAvailable for 1 where
 * libcurl or its OpenSSL cannot be loaded (they are loaded now, not with the library), or in a
 * build without them, with "Streaming upload is not available in this build". */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStreamingUpload(dataExchangeLibraryImp* handle, uint32_t enable);

/* What a log line reports. The library's lines are a trace: what it does and what failed below
 * the error list; only the zip writer's are about the host's data, a file left out of a package. */
typedef enum dataExchangeLogLevel {
    LogDebug = 0,  /* the debug output's lines: "Adding file a.csv", "Received answer ..." */
    LogWarning = 1 /* the zip writer could not open, read or write a file ("Couldn't open ...") */
} dataExchangeLogLevel;

/* Receives one log line: UTF-8 (names in the ANSI code page are converted), without the line
 * end, exactly the text the debug output shows (a quoted server answer may hold line feeds). */
typedef void(DATAEXCHANGE_CALL* dataExchangeLogCallback)(uint32_t level, const char* line,
                                                         void* context);

/* dataExchangeSetLogCallback() : process-wide, for the log is not per handle. NULL (the default)
 * writes LogDebug lines to the debug output (OutputDebugStringA on Windows, standard error
 * elsewhere) and LogWarning lines to Qt's warning channel. A callback takes every line instead:
 * while it is set, neither of those gets anything (Qt's own messages stay on Qt's channel).
 * Threads: lines come from any thread (the uploading one, packing threads, Qt's), one call at a
 * time, each whole, in the order written; a slow callback delays the threads that log meanwhile
 * and loses nothing. A line the library writes on the thread of a running callback (when the
 * callback calls the library) goes to the debug output instead.
 * Unsetting: once this call returns, the previous callback is not running on another thread
 * and is never called again (waiting for a running call to end; from inside the callback it
 * returns at once). Lines are handed over until then, also while the library unloads (it
 * removes its temporary folders), so a host whose callback may be gone before that (an
 * interpreter or managed runtime that shuts down, a module unloaded first) sets NULL before.
 * @return Success. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetLogCallback(dataExchangeLogCallback callback, void* context);

#ifdef __cplusplus
}
#endif

#endif /* DATAEXCHANGE_EXT_H */
