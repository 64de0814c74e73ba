/* A host for the upload tests: placed in a folder beside its config.xml, it sets the options
 * given as name=value arguments, uploads the path and prints what came back, one item a line. */
#include "dataExchangeExt.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Progress lines go to standard output; cancelAt names the stage whose second call cancels. */
static uint32_t cancelAt = 0;
static int callsInStage = 0;
static uint32_t lastStage = 0;

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    (void)context;
    callsInStage = stage == lastStage ? callsInStage + 1 : 1;
    lastStage = stage;
    printf("progress=%u %llu %llu\n", (unsigned)stage, (unsigned long long)done,
           (unsigned long long)total);
    fflush(stdout);
    return stage == cancelAt && callsInStage == 2;
}

static void setOption(dataExchangeLibraryImp* handle, const char* argument) {
    const char* value = strchr(argument, '=') + 1;
    if (strncmp(argument, "dev=", 4) == 0)
        dataExchangeSetInt32Option(handle, "Device type", atoi(value));
    else if (strncmp(argument, "dt=", 3) == 0)
        dataExchangeSetInt32Option(handle, "Data type", atoi(value));
    else if (strncmp(argument, "loc=", 4) == 0)
        dataExchangeSetUint32Option(handle, "Location", (uint32_t)atoi(value));
    else if (strncmp(argument, "sn=", 3) == 0)
        dataExchangeSetUint64Option(handle, "Serial number", strtoull(value, NULL, 10));
    else if (strncmp(argument, "user=", 5) == 0)
        dataExchangeSetStringOption(handle, "User", value);
    else if (strncmp(argument, "cancel=", 7) == 0)
        cancelAt = (uint32_t)atoi(value);
    else if (strncmp(argument, "progress=", 9) == 0)
        dataExchangeSetProgressCallback(handle, onProgress, NULL);
    else if (strncmp(argument, "stall=", 6) == 0)
        dataExchangeSetStallTimeout(handle, (uint32_t)atoi(value));
    else if (strncmp(argument, "proxy=", 6) == 0)
        dataExchangeSetUseConfiguredProxy(handle, (uint32_t)atoi(value));
}

int main(int argc, char** argv) {
    static char errors[65536];
    char name[512] = "";
    uint32_t used = 0;
    int32_t result;
    int n;
    dataExchangeLibraryImp* handle = dataExchangeInit(NULL, 0, NULL);
    if (handle == NULL || argc < 2)
        return 2;
    for (n = 2; n < argc; ++n)
        setOption(handle, argv[n]);
    result = dataExchangeUploadData(handle, argv[1], sizeof name, name, &used);
    if (dataExchangeGetLastErrors(handle, sizeof errors, errors) != Success || result == Success)
        errors[0] = '\0';
    printf("result=%d\nname=%s\nlocation=%u\nerrors=%s", (int)result, name, (unsigned)used, errors);
    dataExchangeClose(&handle);
    return 0;
}
