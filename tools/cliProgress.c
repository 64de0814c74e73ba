/*
 * The progress display of dataexchange-upload and its Ctrl+C: one redrawn line per stage on a
 * terminal, plain "Progress:" lines otherwise, and the library's log lines between them with
 * --verbose.
 */
#if !defined(_WIN32)
/* isatty, sigaction and the monotonic clock are POSIX, outside strict C99; the flags of
 * sigaction used here are in its X/Open part. */
#define _XOPEN_SOURCE 600
#endif

#include "cliProgress.h"

#include "cliLog.h"
#include "cliText.h"

#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

/* The few things C99 lacks: is standard output a terminal, a clock for rates, Ctrl+C. */
#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <io.h>
#include <windows.h>
static int stdoutIsTerminal(void) {
    return _isatty(_fileno(stdout));
}
static double secondsNow(void) {
    return (double)GetTickCount64() / 1000.0;
}
/* The runtime restores the default action before it calls the handler, so a second Ctrl+C
 * ends the program. */
static void catchInterrupt(void (*handler)(int)) {
    signal(SIGINT, handler);
}
#else
#include <time.h>
#include <unistd.h>
static int stdoutIsTerminal(void) {
    return isatty(STDOUT_FILENO);
}
static double secondsNow(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}
/* One-shot, so that a second Ctrl+C ends the program; restarted calls, so that a read or write
 * in the library is not failed by the first. */
static void catchInterrupt(void (*handler)(int)) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    sigaction(SIGINT, &action, NULL);
}
#endif

static volatile sig_atomic_t interrupted = 0;

static void onInterrupt(int signalNumber) {
    (void)signalNumber;
    interrupted = 1;
}

static const char* stageName(uint32_t stage) {
    static const char* const names[] = {"packing", "shared folder", "upload", "job request",
                                        "retry wait"};
    return stage >= StagePacking && stage <= StageRetryWait ? names[stage - 1] : "unknown stage";
}

static void formatBytes(char* text, size_t size, double bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024.0 && unit < 4) {
        bytes /= 1024.0;
        ++unit;
    }
    snprintf(text, size, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
}

static void endProgressLine(CliProgress* progress) {
    if (progress->lineLength > 0)
        cliTextWrite(stdout, "\n", 1);
    progress->lineLength = 0;
    fflush(stdout);
}

static void drawProgressLine(CliProgress* progress) {
    char line[160];
    int length;
    const int bytes = progress->stage == StagePacking || progress->stage == StageUpload;
    /* Once all is sent the wait for the answer must not lower the rate. */
    const double elapsed =
        (progress->done >= progress->total ? progress->moved : secondsNow()) - progress->started;
    const uint64_t done = progress->done < progress->total ? progress->done : progress->total;
    if (progress->total == 0)
        length = snprintf(line, sizeof line, "%-13s  --%%", stageName(progress->stage));
    else
        length = snprintf(line, sizeof line, "%-13s %3d%%", stageName(progress->stage),
                          (int)((double)done * 100.0 / (double)progress->total));
    if (bytes && progress->total != 0) {
        char sent[32], total[32], rate[32], left[32] = "--:--";
        const double perSecond = elapsed > 0.0 ? (double)done / elapsed : 0.0;
        formatBytes(sent, sizeof sent, (double)done);
        formatBytes(total, sizeof total, (double)progress->total);
        formatBytes(rate, sizeof rate, perSecond);
        if (perSecond > 0.0) {
            /* Capped: a rate near zero would otherwise give absurd times. */
            double seconds = (double)(progress->total - done) / perSecond;
            unsigned long whole = seconds < 359999.0 ? (unsigned long)(seconds + 0.5) : 359999UL;
            if (whole >= 3600)
                snprintf(left, sizeof left, "%lu:%02lu:%02lu", whole / 3600, whole / 60 % 60,
                         whole % 60);
            else
                snprintf(left, sizeof left, "%lu:%02lu", whole / 60, whole % 60);
        }
        length += snprintf(line + length, sizeof line - (size_t)length, "  %s of %s  %s/s  ETA %s",
                           sent, total, rate, left);
    } else if (progress->stage == StageRetryWait && progress->total != 0) {
        length += snprintf(line + length, sizeof line - (size_t)length, "  %.1f s of %.1f s",
                           (double)done / 1000.0, (double)progress->total / 1000.0);
    }
    if (length < 0 || (size_t)length >= sizeof line)
        return;
    /* Blanks overwrite what a longer previous line left behind. */
    cliTextPrintf(stdout, "\r%s%*s", line,
                  progress->lineLength > length ? progress->lineLength - length : 0, "");
    progress->lineLength = length;
    fflush(stdout);
}

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    CliProgress* progress = (CliProgress*)context;
    int changed = 1;
    if (stage != progress->stage) {
        endProgressLine(progress);
        progress->stage = stage;
        progress->started = progress->moved = secondsNow();
    } else if ((done == 0 && total == 0) || (done == progress->done && total == progress->total)) {
        /* A request waiting for its first bytes tells (0, 0): keep the total already known. */
        changed = 0;
    } else if (done != progress->done) {
        progress->moved = secondsNow();
    }
    if (changed) {
        progress->done = done;
        progress->total = total;
    }
    if (progress->verbose) {
        /* A debug line starts on a line of its own: the progress line is drawn again after. */
        if (progress->lineLength > 0)
            cliTextPrintf(stdout, "\r%*s\r", progress->lineLength, "");
        fflush(stdout);
        progress->lineLength = 0;
        cliLogShow(0);
    }
    if (progress->show && progress->terminal)
        drawProgressLine(progress);
    else if (progress->show && changed)
        cliTextPrintf(stdout, "Progress: %s %" PRIu64 "/%" PRIu64 "\n", stageName(stage), done,
                      total);
    fflush(stdout);
    if (interrupted)
        progress->cancelled = 1;
    return interrupted ? 1 : 0;
}

int32_t cliProgressStart(dataExchangeLibraryImp* handle, CliProgress* progress, int show,
                         int verbose) {
    memset(progress, 0, sizeof *progress);
    progress->show = show;
    progress->terminal = stdoutIsTerminal();
    progress->verbose = verbose;
    catchInterrupt(onInterrupt);
    return dataExchangeSetProgressCallback(handle, onProgress, progress);
}

int cliProgressFinish(CliProgress* progress, int32_t result) {
    endProgressLine(progress);
    if (progress->verbose || (result != Success && result != BufferTooSmall))
        cliLogShow(!progress->verbose);
    return progress->cancelled && result == DataHandlingFailed;
}
