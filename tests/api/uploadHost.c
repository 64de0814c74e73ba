/* A host for the upload tests: placed in a folder beside its config.xml, it sets the options
 * given as name=value arguments, uploads the path and prints what came back, one item a line. */
#include "dataExchangeExt.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>
#endif
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
/* spooled=send or spooled=list: the spool's exports instead of an upload. */
static const char* spooled = "";
/* restart=PIDFILE: SIGHUP to that process once the upload has sent its first bytes, then a
 * second's pause in which the restart takes effect. */
static const char* restartPidFile = NULL;

static int32_t DATAEXCHANGE_CALL onProgress(uint32_t stage, uint64_t done, uint64_t total,
                                            void* context) {
    (void)context;
    callsInStage = stage == lastStage ? callsInStage + 1 : 1;
#ifndef _WIN32
    if (restartPidFile != NULL && stage == StageUpload && done > 0) {
        FILE* file = fopen(restartPidFile, "r");
        int pid = 0;
        /* The upload waits here until the restart has cut it, however fast it would be done. */
        if (file != NULL && fscanf(file, "%d", &pid) == 1 && pid > 0 && kill(pid, SIGHUP) == 0)
            sleep(1);
        if (file != NULL)
            fclose(file);
        restartPidFile = NULL;
    }
#endif
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
    else if (strncmp(argument, "stream=", 7) == 0)
        dataExchangeSetStreamingUpload(handle, number);
    else if (strncmp(argument, "then=", 5) == 0)
        secondPath = value;
    else if (strncmp(argument, "retries=", 8) == 0) /* retries=N:FIRST-DELAY-MS */
        dataExchangeSetRetries(handle, number, (uint32_t)strtoul(strchr(value, ':') + 1, NULL, 10));
    else if (strncmp(argument, "spool=", 6) == 0)
        dataExchangeSetSpoolFolder(handle, value);
    else if (strncmp(argument, "spooled=", 8) == 0)
        spooled = value;
    else if (strncmp(argument, "restart=", 8) == 0)
        restartPidFile = value;
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
    if (strcmp(spooled, "send") == 0) {
        uint32_t delivered = 0, remaining = 0;
        result = dataExchangeSendSpooled(handle, &delivered, &remaining);
        printf("delivered=%u\nremaining=%u\n", (unsigned)delivered, (unsigned)remaining);
    } else if (strcmp(spooled, "list") == 0) {
        static char list[65536];
        char* line;
        result = dataExchangeListSpooled(handle, sizeof list, list);
        for (line = strtok(list, "\n"); result == Success && line != NULL;
             line = strtok(NULL, "\n"))
            printf("spooled=%s\n", line);
    } else
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
