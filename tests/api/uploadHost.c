/* A host for the upload tests: placed in a folder beside its config.xml, it sets the options
 * given as name=value arguments, uploads the path and prints what came back, one item a line. */
#include "dataExchangeExt.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#ifdef _WIN32
#include <windows.h>

#include <shellapi.h>
#endif

/* Progress lines go to standard output; cancel=STAGE:CALL cancels at that call of the stage. */
static unsigned cancelStage = 0, cancelCall = 0, callsInStage = 0, lastStage = 0;
/* namesize=N: the size the upload is told its name buffer has. */
static size_t nameSize = 512;
/* then=PATH: a second upload on the same handle, the one whose outcome is printed. */
static const char* secondPath = NULL;

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    (void)context;
    callsInStage = stage == lastStage ? callsInStage + 1 : 1;
    lastStage = stage;
    printf("progress=%u %llu %llu\n", (unsigned)stage, (unsigned long long)done,
           (unsigned long long)total);
    fflush(stdout);
    return stage == cancelStage && callsInStage == cancelCall;
}

static void setOption(dataExchangeLibraryImp* handle, const char* argument) {
    const char* value = strchr(argument, '=') + 1;
    const unsigned number = (unsigned)strtoul(value, NULL, 10);
    if (strncmp(argument, "dev=", 4) == 0)
        dataExchangeSetInt32Option(handle, "Device type", (int32_t)number);
    else if (strncmp(argument, "dt=", 3) == 0)
        dataExchangeSetInt32Option(handle, "Data type", (int32_t)number);
    else if (strncmp(argument, "loc=", 4) == 0)
        dataExchangeSetUint32Option(handle, "Location", number);
    else if (strncmp(argument, "sn=", 3) == 0)
        dataExchangeSetUint64Option(handle, "Serial number", strtoull(value, NULL, 10));
    else if (strncmp(argument, "user=", 5) == 0)
        dataExchangeSetStringOption(handle, "User", value);
    else if (strncmp(argument, "email=", 6) == 0)
        dataExchangeSetStringOption(handle, "Email address", value);
    else if (strncmp(argument, "report=", 7) == 0)
        dataExchangeSetUint32Option(handle, "Report", number);
    else if (strncmp(argument, "cancel=", 7) == 0)
        sscanf(value, "%u:%u", &cancelStage, &cancelCall);
    else if (strncmp(argument, "progress=", 9) == 0)
        dataExchangeSetProgressCallback(handle, onProgress, NULL);
    else if (strncmp(argument, "stall=", 6) == 0)
        dataExchangeSetStallTimeout(handle, number);
    else if (strncmp(argument, "namesize=", 9) == 0)
        nameSize = number;
    else if (strncmp(argument, "proxy=", 6) == 0)
        dataExchangeSetUseConfiguredProxy(handle, number);
    else if (strncmp(argument, "verified=", 9) == 0)
        dataExchangeSetVerifiedDelivery(handle, number);
    else if (strncmp(argument, "threads=", 8) == 0)
        dataExchangeSetPackingThreads(handle, number);
    else if (strncmp(argument, "unicode=", 8) == 0)
        dataExchangeSetUnicodePaths(handle, number);
    else if (strncmp(argument, "then=", 5) == 0)
        secondPath = value;
}

/* With unicode=1 the path goes as UTF-8. A narrow main() gets it in the ANSI code page, where
 * names outside it are lost; on Windows it is read again from the UTF-16 command line. */
static const char* utf8Path(const char* path) {
#ifdef _WIN32
    static char utf8[4096];
    int count = 0;
    wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    if (arguments != NULL && count > 1 &&
        WideCharToMultiByte(CP_UTF8, 0, arguments[1], -1, utf8, sizeof utf8, NULL, NULL) > 0)
        path = utf8;
    LocalFree(arguments);
#endif
    return path;
}

int main(int argc, char** argv) {
    static char errors[65536];
    char name[513] = "", stored[512] = "";
    uint32_t used = 0;
    int32_t result;
    int n;
    dataExchangeLibraryImp* handle = dataExchangeInit(NULL, 0, NULL);
    if (handle == NULL || argc < 2)
        return 2;
    for (n = 2; n < argc; ++n)
        setOption(handle, argv[n]);
    for (n = 2; n < argc; ++n)
        if (strcmp(argv[n], "unicode=1") == 0)
            argv[1] = (char*)utf8Path(argv[1]);
    result = dataExchangeUploadData(handle, argv[1], nameSize, name, &used);
    if (secondPath != NULL) {
        name[0] = '\0';
        used = 0;
        result = dataExchangeUploadData(handle, secondPath, nameSize, name, &used);
    }
    if (dataExchangeGetLastErrors(handle, sizeof errors, errors) != Success || result == Success)
        errors[0] = '\0';
    dataExchangeGetStoredName(handle, sizeof stored, stored);
    printf("result=%d\nname=%s\nlocation=%u\nstored=%s\nerrors=%s", (int)result, name,
           (unsigned)used, stored, errors);
    dataExchangeClose(&handle);
    return 0;
}
