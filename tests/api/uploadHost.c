/* A host for the upload tests: placed in a folder beside its config.xml, it sets the options
 * given as name=value arguments, uploads the path and prints what came back, one item a line. */
#include "dataExchange.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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
