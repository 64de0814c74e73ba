#if !defined(_WIN32)
/* getpwuid and getuid are POSIX, outside strict C99. */
#define _XOPEN_SOURCE 600
#endif

#include "cliSpool.h"

#include "cliText.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The library's last line after an upload whose item went into the spool. */
static const char keptPrefix[] = "The packed item is kept in the spool as '";

/* A listing line takes a few hundred bytes; this is room for a million items and more. */
#define MAX_LISTING ((size_t)256 * 1024 * 1024)

#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <shlobj.h>

/* UTF-8 of the wide folder followed by tail (ASCII), from malloc; NULL when it does not
 * convert. */
static char* utf8Folder(const wchar_t* folder, const char* tail) {
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, folder, -1, NULL, 0, NULL, NULL);
    char* text = bytes > 1 ? (char*)malloc((size_t)bytes + strlen(tail)) : NULL;
    if (text == NULL)
        return NULL;
    if (WideCharToMultiByte(CP_UTF8, 0, folder, -1, text, bytes, NULL, NULL) != bytes) {
        free(text);
        return NULL;
    }
    strcat(text, tail);
    return text;
}

char* cliSpoolDefaultFolder(void) {
    /* FOLDERID_LocalAppData, spelt out: the constant lives in a library MinGW links only on
     * request. */
    static const GUID localAppData = {
        0xF1B32785, 0x6FBA, 0x4FCF, {0x9D, 0x55, 0x7B, 0x8E, 0x7F, 0x15, 0x70, 0x91}};
    static const char tail[] = "\\dataExchange\\spool";
    wchar_t variable[32768];
    PWSTR known = NULL;
    char* folder = NULL;
    DWORD length;
    if (SHGetKnownFolderPath(&localAppData, 0, NULL, &known) == S_OK)
        folder = utf8Folder(known, tail);
    CoTaskMemFree(known);
    if (folder != NULL)
        return folder;
    /* A profile the shell cannot name (a service account, an old Wine): the variable. */
    length = GetEnvironmentVariableW(L"LOCALAPPDATA", variable, sizeof variable / sizeof *variable);
    return length > 0 && length < sizeof variable / sizeof *variable ? utf8Folder(variable, tail)
                                                                     : NULL;
}

#else
#include <pwd.h>
#include <unistd.h>

static char* joined(const char* folder, const char* tail) {
    char* text = (char*)malloc(strlen(folder) + strlen(tail) + 1);
    if (text != NULL)
        strcat(strcpy(text, folder), tail);
    return text;
}

char* cliSpoolDefaultFolder(void) {
    /* A relative path in these variables is to be ignored, as the XDG base directories say. */
    const char* state = getenv("XDG_STATE_HOME");
    const char* home = getenv("HOME");
    const struct passwd* user;
    if (state != NULL && state[0] == '/')
        return joined(state, "/dataExchange/spool");
    if ((home == NULL || home[0] != '/') && (user = getpwuid(getuid())) != NULL)
        home = user->pw_dir;
    return home != NULL && home[0] == '/' ? joined(home, "/.local/state/dataExchange/spool") : NULL;
}
#endif

static const char* destinationsText(const char* destinations) {
    if (strcmp(destinations, "1") == 0)
        return "to the shared folder";
    if (strcmp(destinations, "2") == 0)
        return "to the server";
    if (strcmp(destinations, "1,2") == 0)
        return "to the shared folder, then the server";
    return destinations;
}

/* Whether text starts with the library's " Attempt <k> of <n>:" that begins each attempt's cause
 * after the first, once its line breaks became blanks. */
static int attemptStarts(const char* text) {
    size_t digits;
    if (strncmp(text, " Attempt ", 9) != 0)
        return 0;
    text += 9;
    if ((digits = strspn(text, "0123456789")) == 0 || strncmp(text + digits, " of ", 4) != 0)
        return 0;
    text += digits + 4;
    return (digits = strspn(text, "0123456789")) > 0 && text[digits] == ':';
}

/* The last cause, each attempt on a line of its own. */
static void printCause(const char* cause) {
    const char* start = cause;
    const char* at;
    cliTextPrintf(stdout, "    last cause: ");
    for (at = cause; *at != '\0'; ++at)
        if (attemptStarts(at)) {
            cliTextPrintf(stdout, "%.*s\n                ", (int)(at - start), start);
            start = at + 1;
        }
    cliTextPrintf(stdout, "%s\n", start);
}

/* One listing line, "<item>\t<packed>\t<destinations>\t<attempts>\t<last cause>", on lines of
 * its own; a line of another shape as it is. */
static void printItem(char* line) {
    char* fields[5];
    size_t count = 0;
    fields[count++] = line;
    while (count < 5 && (line = strchr(line, '\t')) != NULL) {
        *line++ = '\0';
        fields[count++] = line;
    }
    if (count < 5) {
        cliTextPrintf(stdout, "%s\n", fields[0]);
        return;
    }
    cliTextPrintf(stdout, "%s  %s\n    %s, %s %s so far\n", fields[0], fields[1],
                  destinationsText(fields[2]), fields[3],
                  strcmp(fields[3], "1") == 0 ? "attempt" : "attempts");
    printCause(fields[4]);
}

int32_t cliSpoolList(dataExchangeLibraryImp* handle, const char* folder) {
    size_t size = 64 * 1024;
    unsigned long items = 0;
    char* text = NULL;
    char* line;
    char* end;
    int32_t result = BufferTooSmall;
    /* Each call lists the folder anew: an item kept meanwhile may need a larger buffer still. */
    while (result == BufferTooSmall && size <= MAX_LISTING) {
        char* larger = (char*)realloc(text, size);
        if (larger == NULL)
            break;
        text = larger;
        result = dataExchangeListSpooled(handle, size, text);
        size *= 4;
    }
    if (result == Success) {
        /* The causes quote the server's answers. */
        char* shown = cliTextEscaped(text);
        free(text);
        text = shown;
    }
    if (result == Success && text != NULL) {
        cliTextPrintf(stdout, "Spool: %s\n", folder);
        for (line = text; *line != '\0'; line = end + 1, ++items) {
            end = strchr(line, '\n'); /* every line ends in one */
            if (end == NULL)
                end = line + strlen(line) - 1;
            else
                *end = '\0';
            printItem(line);
        }
        cliTextPrintf(stdout, "Items in the spool: %lu\n", items);
    }
    free(text);
    return result;
}

void cliSpoolReportSent(uint32_t delivered, uint32_t remaining) {
    cliTextPrintf(stdout, "Delivered from the spool: %lu\nRemaining in the spool: %lu\n",
                  (unsigned long)delivered, (unsigned long)remaining);
}

int cliSpoolKept(const char* errors) {
    size_t length = strlen(errors);
    size_t start;
    while (length > 0 && errors[length - 1] == '\n')
        --length;
    for (start = length; start > 0 && errors[start - 1] != '\n'; --start)
        ;
    return length - start > sizeof keptPrefix - 1 &&
           strncmp(errors + start, keptPrefix, sizeof keptPrefix - 1) == 0;
}
