/* A host written in C99 against the public header: lists the options with their values. */
#include "dataExchange.h"

#include <stdio.h>

static void printOption(const char* name, const char* summary, const char* description,
                        uint32_t access, uint32_t type, void* context) {
    (void)description;
    ++*(int*)context;
    printf("%-14s type %u access %u  %s\n", name, (unsigned)type, (unsigned)access, summary);
}

int main(void) {
    char text[64];
    int count = 0;
    dataExchangeLibraryImp* handle = dataExchangeInit(NULL, sizeof text, text);
    if (handle == NULL) {
        fprintf(stderr, "init failed: %s", text);
        return 1;
    }
    if (dataExchangeVersion(sizeof text, text) == Success)
        printf("dataExchange %s\n", text);
    dataExchangeEnumerateOptions(handle, printOption, &count);
    dataExchangeClose(&handle);
    return count == 7 && handle == NULL ? 0 : 1;
}
