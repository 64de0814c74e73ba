/*
 * benchHost: the benchmarks' host of the public header. Uploads one file or folder as device 0,
 * precalibration data, and prints how long the upload call took.
 *
 *     benchHost LOCATION PATH
 *     benchHost --version
 *
 * Prints "<seconds of dataExchangeUploadData> <location used> <delivered name>" on success and
 * exits 0; otherwise prints the library's messages on standard error and exits 1. The server
 * route reads config.xml beside this program. --version prints the library's version and source
 * revision.
 */
#define _POSIX_C_SOURCE 200809L /* clock_gettime */

#include "dataExchange.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

int main(int argc, char** argv) {
    static char errors[64 * 1024];
    char name[4096];
    uint32_t used = 0;
    int32_t result;
    double started, seconds;
    dataExchangeLibraryImp* handle;
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        char version[256], revision[41];
        if (dataExchangeVersion(sizeof version, version) != Success ||
            dataExchangeSha1(sizeof revision, revision) != Success)
            return 1;
        printf("%s %s\n", version, revision);
        return 0;
    }
    if (argc != 3) {
        fprintf(stderr, "usage: benchHost LOCATION PATH\n");
        return 2;
    }
    handle = dataExchangeInit(NULL, sizeof errors, errors);
    if (handle == NULL) {
        fprintf(stderr, "benchHost: %s\n", errors);
        return 1;
    }
    dataExchangeSetInt32Option(handle, "Device type", 0);
    dataExchangeSetInt32Option(handle, "Data type", Precalibration);
    dataExchangeSetUint64Option(handle, "Serial number", 4711);
    dataExchangeSetStringOption(handle, "User", "bench");
    dataExchangeSetUint32Option(handle, "Location", (uint32_t)strtoul(argv[1], NULL, 10));
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
    dataExchangeClose(&handle);
    return 0;
}
