/*
 * dataExchange - send the data of an optical tracking device (calibration runs, data-logger
 * recordings, log files) to the device maker's processing site.
 *
 * The whole interface is plain C: an opaque handle, named options, caller-owned buffers and
 * signed 32-bit result codes. Every failure is also recorded as an English message in the
 * handle's error list, read back with dataExchangeGetLastErrors().
 *
 * Typical use:
 *
 *     dataExchangeLibraryImp* h = dataExchangeInit(NULL, 0, NULL);
 *     dataExchangeSetInt32Option(h, "Device type", 0);
 *     dataExchangeSetInt32Option(h, "Data type", Precalibration);
 *     dataExchangeSetUint64Option(h, "Serial number", 4711);
 *     dataExchangeSetUint32Option(h, "Location", Server);
 *     char name[260];
 *     uint32_t used = 0;
 *     if (dataExchangeUploadData(h, "/data/cal7", sizeof name, name, &used) != Success) {
 *         char errors[4096];
 *         dataExchangeGetLastErrors(h, sizeof errors, errors);
 *     }
 *     dataExchangeClose(&h);
 *
 * Threads: one handle serves one thread at a time; different handles may be used from
 * different threads. Buffer sizes always count the terminating zero.
 */
#ifndef DATAEXCHANGE_H
#define DATAEXCHANGE_H

#include <stddef.h>
#include <stdint.h>

/* ---------------------------------------------------------------------------------------------
 * Export macro and calling convention
 * ------------------------------------------------------------------------------------------- */
#if defined(_WIN32)
#if defined(DATAEXCHANGE_BUILDING)
#define DATAEXCHANGE_API __declspec(dllexport)
#else
#define DATAEXCHANGE_API __declspec(dllimport)
#endif
#define DATAEXCHANGE_CALL __cdecl
#else
#define DATAEXCHANGE_API __attribute__((visibility("default")))
#define DATAEXCHANGE_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Result codes: the values are frozen; every export except dataExchangeInit returns one.
 * ------------------------------------------------------------------------------------------- */
typedef enum dataExchangeResult {
    Success = 0,                     /* done */
    InvalidArgument = 1,             /* a required pointer is null, or the option name is empty */
    ReadFailed = 10,                 /* the option reported a failure while reading */
    WriteFailed = 11,                /* the option reported a failure while writing */
    InvalidOption = 20,              /* no option of that name, or of another type */
    NotAvailable = 21,               /* write-only, read-only, no getter, no such value */
    HandlerConfigurationFailed = 30, /* upload: the options do not describe a valid upload */
    DataHandlingFailed = 40,         /* upload: packing or every delivery failed */
    ValueCropped = -20,              /* the value was written, but shortened or clipped */
    BufferTooSmall = -21             /* an output text did not fit into the caller's buffer */
} dataExchangeResult;

/* ---------------------------------------------------------------------------------------------
 * Enumerations
 * ------------------------------------------------------------------------------------------- */

/* Type code of an option; selects the Get/Set export pair to use. */
typedef enum dataExchangeOptionType {
    Undefined = -1,
    Int32 = 0,
    Uint32 = 1,
    Uint64 = 2,
    String = 3
} dataExchangeOptionType;

/* Which value a Get export reads. Other selectors are accepted and read nothing. */
typedef enum dataExchangeValueKind {
    Current = 0,
    Minimum = 1,
    Maximum = 2,
    Default = 3
} dataExchangeValueKind;

/* Value of the "Location" option: where the data goes. */
typedef enum dataExchangeLocation {
    SharedFolder = 1,          /* moved into the shared network folder */
    Server = 2,                /* posted to the processing server */
    SharedFolderThenServer = 3 /* shared folder first, the server only if that fails (default) */
} dataExchangeLocation;

/* Value of the "Data type" option: the kind of data sent. */
typedef enum dataExchangeDataType {
    Precalibration = 0,
    Cmm = 1,
    Forest = 2,
    Avt = 3,
    Datalogger = 4,
    Cit = 5,
    LogFile = 6
} dataExchangeDataType;

/* ---------------------------------------------------------------------------------------------
 * Option description: what the enumeration callback is told about each option.
 * ------------------------------------------------------------------------------------------- */
typedef struct dataExchangeOptionDescription {
    const char* name;        /* the key the Get/Set exports take */
    const char* summary;     /* one line */
    const char* description; /* longer text */
    uint32_t access;         /* bit 0 (1): readable, bit 1 (2): writable */
    int32_t type;            /* a dataExchangeOptionType */
} dataExchangeOptionDescription;

/* The handle: opaque. */
typedef struct dataExchangeLibraryImp dataExchangeLibraryImp;

/* Called once per option by dataExchangeEnumerateOptions; the texts stay valid while the
 * handle is open. */
typedef void(DATAEXCHANGE_CALL* dataExchangeOptionCallback)(const char* name, const char* summary,
                                                            const char* description,
                                                            uint32_t access, uint32_t type,
                                                            void* context);

/* ---------------------------------------------------------------------------------------------
 * Lifecycle, errors and build identity
 * ------------------------------------------------------------------------------------------- */

/* dataExchangeInit() : opens a handle. reserved is ignored. If the handle cannot be made, the
 * reason is written into errorBuffer (when it is non-null and errorBufferSize non-zero, always
 * zero-terminated, cut to fit) and NULL is returned. On success errorBuffer is not touched.
 * Creates a QCoreApplication for the handle's lifetime when the host has none. */
DATAEXCHANGE_API dataExchangeLibraryImp* DATAEXCHANGE_CALL dataExchangeInit(void* reserved,
                                                                            size_t errorBufferSize,
                                                                            char* errorBuffer);

/* dataExchangeClose() : destroys *handle and sets it to NULL.
 * @return InvalidArgument when handle is NULL; Success otherwise (also when *handle is NULL). */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeClose(dataExchangeLibraryImp** handle);

/* dataExchangeGetLastErrors() : hands out the messages of the last call, each followed by
 * "\n", and empties the list (also when the text does not fit).
 * @return Success (buffer untouched when there were none), BufferTooSmall (first bufferSize
 * bytes written, no terminator), InvalidArgument for a NULL handle, or for a NULL buffer with a
 * non-zero size when there were messages (they are gone all the same). */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetLastErrors(dataExchangeLibraryImp* handle,
                                                                     size_t bufferSize,
                                                                     char* buffer);

/* dataExchangeVersion() : "v2.0.0 (<build time in seconds>) <build platform>".
 * @return Success, BufferTooSmall (cut, no terminator; also for size 0), or InvalidArgument
 * when buffer is NULL and bufferSize non-zero. Note that the size comes first. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeVersion(size_t bufferSize, char* buffer);

/* dataExchangeSha1() : the 40 hex digits of the source revision; results as
 * dataExchangeVersion(). A 41-byte buffer suffices. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSha1(size_t bufferSize, char* buffer);

/* ---------------------------------------------------------------------------------------------
 * Options
 *
 * Seven options, by name: "Data type" (Int32, 0..6), "Device type" (Int32, 0..4), "Email
 * address" (String), "Location" (Uint32, 1..3, default 3), "Report" (Uint32, 0..1, default 1),
 * "Serial number" (Uint64), "User" (String). Numbers outside the bounds are clipped and
 * reported as ValueCropped. Each option export empties the error list first.
 * ------------------------------------------------------------------------------------------- */

/* dataExchangeEnumerateOptions() : calls callback once per option, in byte-wise order of the
 * names. A NULL callback is allowed and does nothing.
 * @return Success, or InvalidArgument for a NULL handle. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeEnumerateOptions(
    dataExchangeLibraryImp* handle, dataExchangeOptionCallback callback, void* context);

/* dataExchangeGet<Type>Option() : reads the value selected by which (dataExchangeValueKind)
 * into *value. @return Success, InvalidArgument (empty name), InvalidOption (unknown name or
 * other type), NotAvailable (no such value), ReadFailed. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetInt32Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, int32_t* value);
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetUint32Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, uint32_t* value);
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetUint64Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, uint64_t* value);

/* dataExchangeGetStringOption() : copies the text into the caller's buffer of bufferSize
 * bytes. @return as the numeric getters, plus InvalidArgument for a NULL buffer and
 * BufferTooSmall when the text (plus its terminator) does not fit: then bufferSize bytes are
 * written without a terminator. */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeGetStringOption(dataExchangeLibraryImp* handle, const char* name, uint32_t which,
                            size_t bufferSize, char* buffer);

/* dataExchangeSet<Type>Option() : writes the current value.
 * @return Success, ValueCropped (a clipped value was stored), InvalidArgument, InvalidOption,
 * NotAvailable, WriteFailed (the value was refused; the stored value is unchanged). */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetInt32Option(dataExchangeLibraryImp* handle, const char* name, int32_t value);
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUint32Option(dataExchangeLibraryImp* handle, const char* name, uint32_t value);
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUint64Option(dataExchangeLibraryImp* handle, const char* name, uint64_t value);
/* value must not be NULL (InvalidArgument). */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStringOption(dataExchangeLibraryImp* handle, const char* name, const char* value);

/* ---------------------------------------------------------------------------------------------
 * Upload
 * ------------------------------------------------------------------------------------------- */

/* dataExchangeUploadData() : packs a folder (zip of its top-level files) or copies a file, and
 * delivers it as the "Location" option says. Blocks the calling thread until done.
 * writtenFileName (may be NULL) receives the delivered file name, usedLocation (may be NULL)
 * the destination that took it (1 or 2).
 * @return Success, InvalidArgument, ReadFailed (no such file or folder),
 * HandlerConfigurationFailed (device or data type not set), DataHandlingFailed, or
 * BufferTooSmall (delivered, but the name was cut to fit the buffer). */
DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeUploadData(dataExchangeLibraryImp* handle,
                                                                  const char* fileOrFolderName,
                                                                  size_t writtenFileNameSize,
                                                                  char* writtenFileName,
                                                                  uint32_t* usedLocation);

#ifdef __cplusplus
}
#endif

#endif /* DATAEXCHANGE_H */
