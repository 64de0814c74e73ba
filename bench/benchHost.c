/*
 * benchHost: the benchmarks' host of the public headers. Uploads one file or folder as device 0,
 * precalibration data, and prints how long the upload call took.
 *
 *     benchHost LOCATION PATH [THREADS]
 *     benchHost --version
 *
 * THREADS, when given, is handed to dataExchangeSetPackingThreads before the upload (1 packs on
 * the calling thread, 0 on one thread per core, N on N threads); without it the handle keeps the
 * library's default, as a host that never heard of the export does.
 *
 * Prints "<seconds of dataExchangeUploadData> <location used> <delivered name>" on success and
 * exits 0; otherwise prints the library's messages on standard error and exits 1. The server
 * route reads config.xml beside this program. --version prints the library's version and source
 * revision.
 *
 * Further lines on request, after the first: BENCH_STAGES=1 sets a progress callback and prints
 * "stage upload <seconds>", from the upload stage's first call to the job request's first call
 * (the request alone: no packing, no copy, no job request); BENCH_RSS=1 prints "rss <KiB after
 * dataExchangeInit> <KiB after the settings> <peak KiB>" from /proc/self/status, where the
 * second tells what loading libcurl for the streaming upload cost.
 */
#define _POSIX_C_SOURCE 200809L /* clock_gettime */

#include "dataExchangeExt.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

/* When each stage was first reported, 0 for a stage not seen. */
static double stageSeen[StageRetryWait + 1];

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    (void)done;
    (void)total;
    (void)context;
    if (stage <= StageRetryWait && stageSeen[stage] == 0.0)
        stageSeen[stage] = now();
    return 0;
}

/* A field of /proc/self/status in KiB ("VmRSS", "VmHWM"); -1 where there is none. */
static long statusKiB(const char* field) {
    char line[256];
    long value = -1;
    size_t length = strlen(field);
    FILE* status = fopen("/proc/self/status", "r");
    if (status == NULL)
        return -1;
    while (fgets(line, sizeof line, status) != NULL) {
        if (strncmp(line, field, length) == 0 && line[length] == ':') {
            value = strtol(line + length + 1, NULL, 10);
            break;
        }
    }
    fclose(status);
    return value;
}

/* A thread count is digits only: strtoul would take "-1" or "2x" and hand the library a count
 * the benchmark never meant. */
static int parseThreads(const char* text, uint32_t* threads) {
    char* end = NULL;
    unsigned long value;
    if (text[0] < '0' || text[0] > '9')
        return 0;
    value = strtoul(text, &end, 10);
    if (*end != '\0' || value > UINT32_MAX)
        return 0;
    *threads = (uint32_t)value;
    return 1;
}

int main(int argc, char** argv) {
    static char errors[64 * 1024];
    char name[4096];
    uint32_t used = 0, threads = 1;
    int32_t result;
    double started, seconds;
    long rssInit, rssSet;
    dataExchangeLibraryImp* handle;
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        char version[256], revision[41];
        if (dataExchangeVersion(sizeof version, version) != Success ||
            dataExchangeSha1(sizeof revision, revision) != Success)
            return 1;
        printf("%s %s\n", version, revision);
        return 0;
    }
    if ((argc != 3 && argc != 4) || (argc == 4 && !parseThreads(argv[3], &threads))) {
        fprintf(stderr, "usage: benchHost LOCATION PATH [THREADS]\n");
        return 2;
    }
    handle = dataExchangeInit(NULL, sizeof errors, errors);
    if (handle == NULL) {
        fprintf(stderr, "benchHost: %s\n", errors);
        return 1;
    }
    rssInit = statusKiB("VmRSS");
    dataExchangeSetInt32Option(handle, "Device type", 0);
    dataExchangeSetInt32Option(handle, "Data type", Precalibration);
    dataExchangeSetUint64Option(handle, "Serial number", 4711);
    dataExchangeSetStringOption(handle, "User", "bench");
    dataExchangeSetUint32Option(handle, "Location", (uint32_t)strtoul(argv[1], NULL, 10));
    /* Negative results are warnings (ValueCropped: over the library's limit, which is kept
     * instead); only a positive one means the setting was refused. */
    if (argc == 4 && dataExchangeSetPackingThreads(handle, threads) > 0) {
        dataExchangeGetLastErrors(handle, sizeof errors, errors);
        fprintf(stderr, "benchHost: packing threads %u refused: %s", (unsigned)threads, errors);
        dataExchangeClose(&handle);
        return 1;
    }
    /* BENCH_COMPRESSION=LEVEL or LEVEL+store: dataExchangeSetCompression before the upload. */
    if (getenv("BENCH_COMPRESSION") != NULL) {
        const char* setting = getenv("BENCH_COMPRESSION");
        dataExchangeSetCompression(handle, (uint32_t)strtoul(setting, NULL, 10),
                                   strstr(setting, "+store") != NULL);
    }
    /* BENCH_STREAMING=1: the upload request through libcurl (dataExchangeSetStreamingUpload). */
    if (getenv("BENCH_STREAMING") != NULL && dataExchangeSetStreamingUpload(handle, 1) != Success) {
        dataExchangeGetLastErrors(handle, sizeof errors, errors);
        fprintf(stderr, "benchHost: streaming upload refused: %s", errors);
        dataExchangeClose(&handle);
        return 1;
    }
    if (getenv("BENCH_STAGES") != NULL)
        dataExchangeSetProgressCallback(handle, onProgress, NULL);
    rssSet = statusKiB("VmRSS");
    started = now();
    result = dataExchangeUploadData(handle, argv[2], sizeof name, name, &used);
    seconds = now() - started;
    if (result != Success) {
        dataExchangeGetLastErrors(handle, sizeof errors, errors);
        fprintf(stderr, "benchHost: upload failed (%d): %s", (int)result, errors);
        dataExchangeClose(&handle);
        return 1;
    }
    printf("%.6f %u %s\n", seconds, (unsigned)used, name);
    if (getenv("BENCH_STAGES") != NULL && stageSeen[StageUpload] != 0.0 &&
        stageSeen[StageJobRequest] != 0.0)
        printf("stage upload %.6f\n", stageSeen[StageJobRequest] - stageSeen[StageUpload]);
    if (getenv("BENCH_RSS") != NULL)
        printf("rss %ld %ld %ld\n", rssInit, rssSet, statusKiB("VmHWM"));
    dataExchangeClose(&handle);
    return 0;
}
