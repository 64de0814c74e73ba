#if !defined(_WIN32)
/* pthread's mutex is POSIX, outside strict C99. */
#define _XOPEN_SOURCE 600
#endif

#include "cliLog.h"

#include "cliText.h"
#include "dataExchangeExt.h"

#include <string.h>

/* Lines come from the library's threads, one call at a time, while the main thread shows them. */
#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
static CRITICAL_SECTION lock;
static void initLock(void) {
    InitializeCriticalSection(&lock);
}
static void takeLock(void) {
    EnterCriticalSection(&lock);
}
static void releaseLock(void) {
    LeaveCriticalSection(&lock);
}
#else
#include <pthread.h>
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static void initLock(void) {}
static void takeLock(void) {
    pthread_mutex_lock(&lock);
}
static void releaseLock(void) {
    pthread_mutex_unlock(&lock);
}
#endif

/* The newest lines not shown yet, each ending in a line feed; the oldest give way. */
static char kept[16 * 1024];
static size_t keptLength;
static FILE* messages;
static int verbose;
static int direct; /* show each line as it comes */

static void keep(const char* line) {
    size_t length = strlen(line);
    if (length >= sizeof kept) {
        line += length - (sizeof kept - 1);
        length = sizeof kept - 1;
    }
    if (keptLength + length + 1 > sizeof kept) {
        const size_t drop = keptLength + length + 1 - sizeof kept;
        memmove(kept, kept + drop, keptLength - drop);
        keptLength -= drop;
    }
    memcpy(kept + keptLength, line, length);
    kept[keptLength + length] = '\n';
    keptLength += length + 1;
}

static void DATAEXCHANGE_CALL onLogLine(uint32_t level, const char* line, void* context) {
    (void)level;
    (void)context;
    takeLock();
    keep(line);
    if (direct) {
        /* The lines quote what servers and files said. */
        cliTextWriteEscaped(messages, kept, keptLength);
        keptLength = 0;
    }
    releaseLock();
}

void cliLogStart(FILE* stream, int verboseRun) {
    messages = stream;
    verbose = verboseRun;
    initLock();
    dataExchangeSetLogCallback(onLogLine, NULL);
}

void cliLogShow(int lastOnly) {
    size_t start = 0, lines = 0;
    takeLock();
    /* Back to the start of the fifth line from the end: after the sixth line feed from it. */
    for (start = lastOnly ? keptLength : 0; start > 0; --start)
        if (kept[start - 1] == '\n' && ++lines > 5)
            break;
    if (start < keptLength && lastOnly)
        cliTextPrintf(messages, "dataexchange-upload: the library's last messages:\n");
    cliTextWriteEscaped(messages, kept + start, keptLength - start);
    keptLength = 0;
    releaseLock();
}

void cliLogEnd(void) {
    if (!verbose)
        return;
    cliLogShow(0);
    takeLock();
    direct = 1;
    releaseLock();
}
