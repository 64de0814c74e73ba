/* A host built the way an MSVC customer builds one: compiled for the MSVC target, linked with
 * the import library dataExchange.lib, kernel32 and the system's msvcrt.dll (no C run-time of
 * its own, so no start-up code and no memcpy the compiler could call). It calls every export of
 * dataExchange.h and dataExchangeExt.h through the MSVC calling convention and checks what comes
 * back, down to the bytes of the buffers and the arguments of both callbacks; then it uploads a
 * folder of its own to the shared folder. One line per check; the exit status is the number of
 * failed checks. */
#include "dataExchangeExt.h"

/* Just the kernel32 and msvcrt functions used, declared here: the host sees no SDK. */
typedef void* HANDLE;
typedef unsigned long DWORD;
__declspec(dllimport) int __stdcall WriteFile(HANDLE file, const void* data, DWORD size,
                                              DWORD* written, void* overlapped);
__declspec(dllimport) __declspec(noreturn) void __stdcall ExitProcess(unsigned status);
__declspec(dllimport) DWORD __stdcall GetCurrentDirectoryA(DWORD size, char* buffer);
__declspec(dllimport) int __stdcall CreateDirectoryA(const char* path, void* security);
__declspec(dllimport) HANDLE
    __stdcall CreateFileA(const char* path, DWORD access, DWORD share, void* security,
                          DWORD disposition, DWORD attributes, HANDLE model);
__declspec(dllimport) int __stdcall CloseHandle(HANDLE file);
__declspec(dllimport) int __cdecl printf(const char* format, ...);
__declspec(dllimport) int __cdecl strcmp(const char* a, const char* b);
__declspec(dllimport) size_t __cdecl strlen(const char* text);
__declspec(dllimport) void* __cdecl memset(void* buffer, int byte, size_t size);
__declspec(dllimport) int __cdecl sprintf(char* buffer, const char* format, ...);
#define GENERIC_WRITE 0x40000000ul
#define CREATE_ALWAYS 2ul
#define FILE_ATTRIBUTE_NORMAL 0x80ul
#define INVALID_HANDLE_VALUE ((HANDLE)(intptr_t)-1)

/* What the DLL, built by MinGW, and this host must agree on. */
_Static_assert(sizeof(dataExchangeResult) == 4 && sizeof(dataExchangeOptionType) == 4 &&
                   sizeof(dataExchangeStage) == 4,
               "enumerations are 32 bits");
_Static_assert(sizeof(dataExchangeOptionDescription) == 32 &&
                   offsetof(dataExchangeOptionDescription, description) == 16 &&
                   offsetof(dataExchangeOptionDescription, access) == 24 &&
                   offsetof(dataExchangeOptionDescription, type) == 28,
               "dataExchangeOptionDescription as MinGW lays it out");

/* ---- Checks ---- */

static int equal(const char* a, const char* b) {
    return strcmp(a, b) == 0;
}

static void fill(char* buffer, size_t size) {
    memset(buffer, '#', size);
}

/* Text matching a template where 'D' stands for any decimal digit and 'X' for any lower-case
 * hexadecimal digit. */
static int shaped(const char* text, const char* template) {
    for (; *template != '\0'; ++text, ++template) {
        const int digit = *text >= '0' && *text <= '9';
        if (*template == 'D'   ? !digit
            : *template == 'X' ? !(digit || (*text >= 'a' && *text <= 'f'))
                               : *text != *template)
            return 0;
    }
    return *text == '\0';
}

static unsigned failures;

/* One line: "ok WHAT: DETAIL" or "FAILED WHAT: DETAIL" (msvcrt's text mode ends it in CR LF). */
static void report(int ok, const char* what, const char* detail) {
    printf("%s %s: %s\n", ok ? "ok" : "FAILED", what, detail);
    failures += !ok;
}

static void result(const char* what, int32_t got, int32_t want) {
    char detail[64];
    sprintf(detail, got == want ? "result %d" : "result %d, not %d", (int)got, (int)want);
    report(got == want, what, detail);
}

static void text(const char* what, int ok, const char* got) {
    report(ok, what, got);
}

static void number(const char* what, uint64_t got, uint64_t want) {
    char detail[64];
    /* %I64u: what every msvcrt.dll takes for 64 bits. */
    sprintf(detail, got == want ? "%I64u" : "%I64u, not %I64u", (unsigned long long)got,
            (unsigned long long)want);
    report(got == want, what, detail);
}

/* ---- Callbacks ---- */

/* The seven options as the enumeration names them, in its order, each readable and writable. */
static const struct {
    const char* name;
    int32_t type;
} expectedOptions[] = {
    {"Data type", Int32}, {"Device type", Int32}, {"Email address", String},
    {"Location", Uint32}, {"Report", Uint32},     {"Serial number", Uint64},
    {"User", String},
};
#define OPTIONS (sizeof expectedOptions / sizeof expectedOptions[0])

static dataExchangeOptionDescription seen[OPTIONS];
static unsigned seenCount, enumerateContext, foreignContexts;

/* Six arguments: the last two come on the stack, past the callee's shadow space. */
static void DATAEXCHANGE_CALL onOption(const char* name, const char* summary,
                                       const char* description, uint32_t access, uint32_t type,
                                       void* context) {
    foreignContexts += context != &enumerateContext;
    if (seenCount < OPTIONS) {
        seen[seenCount].name = name;
        seen[seenCount].summary = summary;
        seen[seenCount].description = description;
        seen[seenCount].access = access;
        seen[seenCount].type = (int32_t)type;
    }
    ++seenCount;
}

/* Per stage the last done and total; and the calls that make no sense. */
static struct { uint64_t done, total; } stages[StageJobRequest + 1];
static unsigned progressContext, oddProgress;

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    if (context != &progressContext || stage < StagePacking || stage > StageJobRequest ||
        done > total) {
        ++oddProgress;
        return 0;
    }
    stages[stage].done = done;
    stages[stage].total = total;
    return 0;
}

/* Debug lines naming a packed file, and calls with other levels or contexts. */
static unsigned addingLines, oddLogCalls;

static void DATAEXCHANGE_CALL onLog(uint32_t level, const char* line, void* context) {
    oddLogCalls += level != LogDebug || context != &addingLines;
    addingLines += equal(line, "Adding file a.csv") || equal(line, "Adding file b.csv");
}

/* ---- The host ---- */

/* The folder uploaded: two small files in <current folder>\cal7. */
static const char* const fileNames[] = {"a.csv", "b.csv"};
static const char* const fileTexts[] = {"1;2;3\r\n", "calibration 4711\r\n"};

/* target = a + b, cut to size. */
static void join(char* target, size_t size, const char* a, const char* b) {
    size_t n = 0;
    for (; *a != '\0' && n + 1 < size; ++a)
        target[n++] = *a;
    for (; *b != '\0' && n + 1 < size; ++b)
        target[n++] = *b;
    target[n] = '\0';
}

static char buffer[4096], folder[512], path[600], name[300];

static int writeFolder(void) {
    const DWORD n = GetCurrentDirectoryA(sizeof path, path);
    if (n == 0 || n >= sizeof path)
        return 0;
    join(folder, sizeof folder, path, "\\cal7");
    CreateDirectoryA(folder, 0); /* it may be there from an earlier run */
    for (size_t f = 0; f < 2; ++f) {
        DWORD written = 0;
        HANDLE file;
        int ok;
        join(path, sizeof path, folder, "\\");
        join(path, sizeof path, path, fileNames[f]);
        file = CreateFileA(path, GENERIC_WRITE, 0, 0, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, 0);
        if (file == INVALID_HANDLE_VALUE)
            return 0;
        ok = WriteFile(file, fileTexts[f], (DWORD)strlen(fileTexts[f]), &written, 0);
        CloseHandle(file);
        if (!ok || written != strlen(fileTexts[f]))
            return 0;
    }
    return 1;
}

static void identity(void) {
    /* "v2.0.0 (<ten digits>) Windows-6.3.9600": 36 characters and the terminator. */
    const char* const version = "v2.0.0 (DDDDDDDDDD) Windows-6.3.9600";
    fill(buffer, 64);
    result("dataExchangeVersion(37)", dataExchangeVersion(37, buffer), Success);
    text("version", shaped(buffer, version), buffer);
    fill(buffer, 64);
    result("dataExchangeVersion(36)", dataExchangeVersion(36, buffer), BufferTooSmall);
    const int unterminated = buffer[36] == '#';
    buffer[36] = '\0';
    text("version cut to 36 bytes, no terminator", unterminated && shaped(buffer, version), buffer);
    fill(buffer, 64);
    result("dataExchangeSha1(41)", dataExchangeSha1(41, buffer), Success);
    text("revision", shaped(buffer, "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX"), buffer);
}

static void options(dataExchangeLibraryImp* handle) {
    int32_t i = 7;
    uint32_t u = 7;
    uint64_t l = 7;
    result("dataExchangeEnumerateOptions",
           dataExchangeEnumerateOptions(handle, onOption, &enumerateContext), Success);
    number("options enumerated", seenCount, OPTIONS);
    number("callbacks with another context", foreignContexts, 0);
    for (size_t n = 0; n < OPTIONS && n < seenCount; ++n) {
        const dataExchangeOptionDescription* const o = &seen[n];
        const int ok = equal(o->name, expectedOptions[n].name) && o->summary[0] != '\0' &&
                       o->description[0] != '\0' && o->access == 3 &&
                       o->type == expectedOptions[n].type;
        char detail[512];
        sprintf(detail, "%.100s type %d access %u: %.300s", o->name, (int)o->type,
                (unsigned)o->access, o->summary);
        report(ok, "option", detail);
    }

    /* Every Set, then the Get of the same type reads it back; the serial uses all 64 bits. */
    result("dataExchangeSetInt32Option Device type",
           dataExchangeSetInt32Option(handle, "Device type", 0), Success);
    result("dataExchangeSetInt32Option Data type",
           dataExchangeSetInt32Option(handle, "Data type", Precalibration), Success);
    result("dataExchangeGetInt32Option Data type",
           dataExchangeGetInt32Option(handle, "Data type", Current, &i), Success);
    number("Data type read back", (uint64_t)i, Precalibration);
    result("dataExchangeSetUint32Option Location",
           dataExchangeSetUint32Option(handle, "Location", SharedFolder), Success);
    result("dataExchangeGetUint32Option Location",
           dataExchangeGetUint32Option(handle, "Location", Current, &u), Success);
    number("Location read back", u, SharedFolder);
    result("dataExchangeSetUint64Option Serial number",
           dataExchangeSetUint64Option(handle, "Serial number", 0x0123456789abcdefull), Success);
    result("dataExchangeGetUint64Option Serial number",
           dataExchangeGetUint64Option(handle, "Serial number", Current, &l), Success);
    number("Serial number read back", l, 0x0123456789abcdefull);
    result("dataExchangeSetStringOption Email address",
           dataExchangeSetStringOption(handle, "Email address", "nick@example.com"), Success);
    result("dataExchangeSetStringOption User", dataExchangeSetStringOption(handle, "User", "nick"),
           Success);
    fill(buffer, 64);
    result("dataExchangeGetStringOption User",
           dataExchangeGetStringOption(handle, "User", Current, 64, buffer), Success);
    text("User read back", equal(buffer, "nick"), buffer);
}

static void extensions(dataExchangeLibraryImp* handle) {
    result("dataExchangeSetProgressCallback",
           dataExchangeSetProgressCallback(handle, onProgress, &progressContext), Success);
    result("dataExchangeSetStallTimeout", dataExchangeSetStallTimeout(handle, 30), Success);
    result("dataExchangeSetRemovePackage", dataExchangeSetRemovePackage(handle, 1), Success);
    result("dataExchangeSetUseConfiguredProxy", dataExchangeSetUseConfiguredProxy(handle, 0),
           Success);
    result("dataExchangeSetVerifiedDelivery", dataExchangeSetVerifiedDelivery(handle, 1), Success);
    result("dataExchangeSetPackingThreads", dataExchangeSetPackingThreads(handle, 2), Success);
    result("dataExchangeSetCompression", dataExchangeSetCompression(handle, 6, 0), Success);
    result("dataExchangeSetUnicodePaths(1)", dataExchangeSetUnicodePaths(handle, 1), Success);
    result("dataExchangeSetUnicodePaths(2)", dataExchangeSetUnicodePaths(handle, 2),
           InvalidArgument);
    fill(buffer, 128);
    result("dataExchangeGetLastErrors", dataExchangeGetLastErrors(handle, 128, buffer), Success);
    text("errors of the refused call",
         equal(buffer, "Unicode paths are 0 (off) or 1 (on), not 2\n"), buffer);
    result("dataExchangeSetRetries", dataExchangeSetRetries(handle, 2, 10), Success);
    result("dataExchangeSetStreamingUpload(0)", dataExchangeSetStreamingUpload(handle, 0), Success);
    result("dataExchangeSetLogCallback", dataExchangeSetLogCallback(onLog, &addingLines), Success);
    result("dataExchangeSetSpoolFolder(NULL)", dataExchangeSetSpoolFolder(handle, 0), Success);
    {
        uint32_t delivered = 7, remaining = 7;
        result("dataExchangeSendSpooled without a folder",
               dataExchangeSendSpooled(handle, &delivered, &remaining), InvalidArgument);
        number("delivered and remaining without a folder", delivered + remaining, 0);
    }
    result("dataExchangeListSpooled without a folder", dataExchangeListSpooled(handle, 128, buffer),
           InvalidArgument);
    fill(buffer, 128);
    dataExchangeGetLastErrors(handle, 128, buffer);
    text("errors of the spool without a folder", equal(buffer, "No spool folder set\n"), buffer);
}

static void upload(dataExchangeLibraryImp* handle) {
    uint32_t location = 7;
    uint64_t bytes = strlen(fileTexts[0]) + strlen(fileTexts[1]);
    int32_t status;
    if (!writeFolder()) {
        text("folder written", 0, folder);
        return;
    }
    fill(name, sizeof name);
    status = dataExchangeUploadData(handle, folder, sizeof name, name, &location);
    result("dataExchangeUploadData", status, Success);
    if (status != Success) {
        fill(buffer, sizeof buffer);
        buffer[sizeof buffer - 1] = '\0';
        dataExchangeGetLastErrors(handle, sizeof buffer - 1, buffer);
        text("upload errors", 0, buffer);
        return;
    }
    number("used location", location, SharedFolder);
    text("delivered name", shaped(name, "DDDD-DD-DD_DD-DD-DD_precalibration_cal7.zip"), name);
    number("progress calls with impossible arguments", oddProgress, 0);
    result("dataExchangeSetLogCallback(NULL)", dataExchangeSetLogCallback(0, 0), Success);
    number("log lines naming a file", addingLines, 2);
    number("log calls with another level or context", oddLogCalls, 0);
    number("packing total", stages[StagePacking].total, bytes);
    number("packing done", stages[StagePacking].done, bytes);
    number("shared folder done", stages[StageSharedFolder].done, 1);
    fill(buffer, 64);
    result("dataExchangeGetStoredName", dataExchangeGetStoredName(handle, 64, buffer), Success);
    text("stored name (a share answers none)", buffer[0] == '\0', buffer);
    /* For the script, which looks at the share. */
    printf("delivered=%s\n", name);
}

int mainCRTStartup(void) {
    dataExchangeLibraryImp* handle;
    identity();
    fill(buffer, 256);
    handle = dataExchangeInit(0, 256, buffer);
    report(handle != 0, "dataExchangeInit", handle != 0 ? "a handle" : buffer);
    if (handle != 0) {
        options(handle);
        extensions(handle);
        upload(handle);
        result("dataExchangeClose", dataExchangeClose(&handle), Success);
        report(handle == 0, "handle after close", handle == 0 ? "NULL" : "not NULL");
    }
    number("failed checks", failures, 0);
    /* Qt's threads may still run: end the process, not just this thread. */
    ExitProcess(failures);
}
