/*
 * dataexchange-upload: sends a measurement file or folder to the processing site from the
 * command line. A plain C99 host of the public header, so it runs wherever the library does and
 * shows a customer the whole call sequence: open, set the options, upload, read the errors,
 * close. It also uses the extensions: progress with cancel on Ctrl+C, the stall timeout,
 * removal of the package, the configured proxy, retries and the spool (cliSpool.c); the
 * progress display is cliProgress.c.
 */
#include "cliLog.h"
#include "cliProgress.h"
#include "cliSpool.h"
#include "cliText.h"
#include "dataExchangeExt.h"

#include <errno.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define TOOL "dataexchange-upload"

static FILE* messages; /* the program's own messages: standard error */

/* The error list is emptied when read, so a second, larger read is impossible: one buffer big
 * enough for any realistic list is the only way not to lose messages. */
static char errorText[64 * 1024];
/* Delivered names are file names with a time stamp in front; this is far beyond any of them. */
static char deliveredName[32 * 1024];
/* Texts of the string options, which the library does not limit. */
static char valueText[64 * 1024];

/* Cancelled is the shell's status of a program ended by Ctrl+C, which scripts already know.
 * Spooled is a failed upload whose data is safe: a script may treat it as done for now. */
enum { ExitSuccess = 0, ExitFailure = 1, ExitUsage = 2, ExitSpooled = 11, ExitCancelled = 130 };

/* One distinct exit status per result code, so that scripts can tell the causes apart. --help
 * prints this table, which keeps the documentation and the behaviour in step. */
static const struct {
    int32_t result;
    int status;
    const char* meaning;
} exitStatuses[] = {
    {InvalidArgument, 3, "invalid argument (e.g. an empty path)"},
    {ReadFailed, 4, "the file or folder does not exist, or an option could not be read"},
    {WriteFailed, 5, "an option value was refused (e.g. an invalid e-mail address)"},
    {InvalidOption, 6, "no such option, or an option of another type"},
    {NotAvailable, 7, "an option value is not available"},
    {HandlerConfigurationFailed, 8, "the options do not describe an upload (device or data type)"},
    {DataHandlingFailed, 9,
     "packing failed, or no destination accepted the data; with\n"
     "                   --send-spooled: items remain in the spool"},
    {BufferTooSmall, 10, "delivered, but the delivered name was cut"},
};

static int exitStatusOf(int32_t result) {
    size_t i;
    if (result == Success)
        return ExitSuccess;
    for (i = 0; i < sizeof exitStatuses / sizeof exitStatuses[0]; ++i)
        if (exitStatuses[i].result == result)
            return exitStatuses[i].status;
    return ExitFailure;
}

/* The flags that set options; the option's type decides which Set export is called. A flag
 * without an option sets the stall timeout, the packing threads, the compression level or the
 * retries, settings of the handle. */
static const struct {
    const char* flag;
    const char* option;
    dataExchangeOptionType type;
    const char* argument;
    const char* help;
} optionFlags[] = {
    {"--device-type", "Device type", Int32, "N",
     "device: 0 Corvane X5, 1 Corvane X2, 2 Lumex M1, 3 Lumex M3, 4 Braidline"},
    {"--data-type", "Data type", Int32, "N",
     "kind of data: 0 precalibration, 1 cmm, 2 forest, 3 AVT, 4 datalogger,\n"
     "                   5 cit, 6 logFile"},
    {"--serial", "Serial number", Uint64, "N", "serial number of the device (0 to 2^64-1)"},
    {"--location", "Location", Uint32, "N",
     "where to: 1 shared folder, 2 server, 3 shared folder and, if that\n"
     "                   fails, the server (default)"},
    {"--email", "Email address", String, "TEXT", "e-mail address of the sender"},
    {"--report", "Report", Uint32, "N", "1 a report is wanted (default), 0 none"},
    {"--user", "User", String, "TEXT", "user (nick) name of the sender"},
    {"--stall-timeout", NULL, Uint32, "SECONDS",
     "abort a request when no data moved for that long; 0, the\n"
     "                   default, waits for the server forever"},
    {"--threads", NULL, Uint32, "N",
     "threads that pack a folder: 0, the default, one per core; 1 as\n"
     "                   the library packs unless asked; at most 32"},
    {"--level", NULL, Uint32, "N",
     "compression of a folder's files: 1 fastest to 9 smallest, 6 as\n"
     "                   the library packs unless asked (the default); 0 stores them"},
    {"--retries", NULL, Uint32, "N",
     "send again up to N times after a passing fault of the server\n"
     "                   (refused, reset, busy, stalled), waiting up to 1 s, 2 s,\n"
     "                   4 s ... (less a random part) or as long as the server asks;\n"
     "                   default 2; 0 makes one attempt, as the library does unless\n"
     "                   asked; at most 20"},
};
#define OPTION_FLAG_COUNT (sizeof optionFlags / sizeof optionFlags[0])

/* The user's own spool folder, as cliSpoolDefaultFolder finds it. */
#if defined(_WIN32)
#define DEFAULT_SPOOL "%LOCALAPPDATA%\\dataExchange\\spool"
#else
#define DEFAULT_SPOOL                                                                              \
    "$XDG_STATE_HOME/dataExchange/spool, else\n"                                                   \
    "                   ~/.local/state/dataExchange/spool"
#endif

static void printHelp(void) {
    size_t i;
    printf("Usage: " TOOL " [OPTIONS] PATH\n"
           "       " TOOL " [OPTIONS] --list-options\n"
           "       " TOOL " [OPTIONS] --send-spooled | --list-spooled\n"
           "\n"
           "Sends the file or folder PATH to the processing site: a folder is packed into a zip\n"
           "of its top-level files, a file is sent as it is. On success prints the name under\n"
           "which the data was delivered and the destination that took it.\n"
           "\n"
           "Options (N is a decimal number; values outside an option's range are clipped\n"
           "with a warning):\n");
    for (i = 0; i < OPTION_FLAG_COUNT; ++i) {
        /* Where flag and argument fill the column, the text starts on the next line. */
        const int room =
            16 - (int)strlen(optionFlags[i].flag) - (int)strlen(optionFlags[i].argument);
        printf("  %s %s%*s%s\n", optionFlags[i].flag, optionFlags[i].argument, room > 0 ? room : 0,
               room > 0 ? "" : "\n                   ", optionFlags[i].help);
    }
    printf("  --remove-package remove the packed copy when the upload returns, instead of\n"
           "                   keeping it in the temporary folder until the program ends\n"
           "  --store-incompressible\n"
           "                   store a file whose first 128 KiB deflate cannot shrink\n"
           "                   (random, compressed or packed data) instead of deflating it\n"
           "  --use-proxy      send through the proxy that config.xml names\n"
           "  --plain          count any answer of the server as delivery, as the library\n"
           "                   does by default; without it the upload is verified: the\n"
           "                   server must name what it stored, failures name their cause\n"
           "  --ansi-paths     pass PATH in the system's narrow encoding, as the library\n"
           "                   takes it by default: on Windows the ANSI code page, which\n"
           "                   cannot hold every name; without it PATH goes as UTF-8 and\n"
           "                   names of any characters work\n"
           "  --no-streaming   post the data through Qt, as the library does by default;\n"
           "                   without it the data streams from one thread through\n"
           "                   libcurl where the library finds it\n"
           "  --spool=DIR      keep an item whose delivery still fails after the retries\n"
           "                   in the folder DIR, for a later --send-spooled\n"
           "  --spool          the same in the user's own spool folder:\n"
           "                   %s\n"
           "                   (the folder is given only after '=': an argument after a\n"
           "                   bare --spool is PATH)\n"
           "  --send-spooled   send every item of the spool (--spool=DIR, else the user's\n"
           "                   own), oldest first, then print how many were delivered and\n"
           "                   how many remain; an item leaves the spool only once the\n"
           "                   server named what it stored\n"
           "  --list-spooled   print the items of the spool (--spool=DIR, else the user's\n"
           "                   own) with their destinations, attempts and last cause\n"
           "  --verbose        show the library's debug lines, each on a line of its own\n"
           "  --no-progress    print no progress\n"
           "  --list-options   print every option with its type, summary and its current,\n"
           "                   minimum, maximum and default values (after applying the\n"
           "                   options above), then exit without uploading\n"
           "  --version        print the library's version and source revision\n"
           "  --help           print this help\n"
           "  --               end of options; the next argument is PATH even if it starts\n"
           "                   with '-'\n"
           "A flag's value may also follow an equals sign: --location=2.\n"
           "\n"
           "The server's address is read from config.xml, next to this program or in\n"
           "../data beside it. Messages of the library go to standard error, one per line;\n"
           "its debug lines only with --verbose, or the last few after a failure.\n"
           "\n"
           "Progress goes to standard output: on a terminal one updating line per stage\n"
           "(packing, shared folder, upload, job request, retry wait) with percentage, rate\n"
           "and time left; otherwise one line per change, \"Progress: STAGE DONE/TOTAL\",\n"
           "where DONE and TOTAL are bytes while packing and uploading, milliseconds in the\n"
           "retry wait and steps otherwise. Ctrl+C cancels the upload (or the send of the\n"
           "spool) cleanly; a second Ctrl+C ends the program at once.\n"
           "\n"
           "Exit status:\n"
           "  %3d  success\n"
           "  %3d  the library could not be opened, or an unexpected result\n"
           "  %3d  usage error (unknown flag, bad number, missing or extra PATH)\n",
           DEFAULT_SPOOL, ExitSuccess, ExitFailure, ExitUsage);
    for (i = 0; i < sizeof exitStatuses / sizeof exitStatuses[0]; ++i)
        printf("  %3d  result %3d: %s\n", exitStatuses[i].status, (int)exitStatuses[i].result,
               exitStatuses[i].meaning);
    printf("  %3d  not delivered, but kept in the spool (--spool): --send-spooled sends\n"
           "       it later\n"
           "  %3d  cancelled with Ctrl+C; nothing (more) was delivered\n",
           ExitSpooled, ExitCancelled);
}

static int usageError(const char* format, ...) CLI_TEXT_PRINTF(1, 2);
static int usageError(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    cliTextPrintf(messages, TOOL ": ");
    cliTextVprintf(messages, format, arguments);
    va_end(arguments);
    cliTextPrintf(messages, "\nTry '" TOOL " --help' for more information.\n");
    return ExitUsage;
}

/* A value of one option flag, parsed and range-checked for the option's type before the
 * library is opened, so that a typo costs nothing. */
typedef struct {
    size_t flag;
    const char* text;
    int64_t signedValue;
    uint64_t unsignedValue;
} Setting;

/* Whole decimal numbers only: strtoull alone would accept "-1" as 2^64-1, and trailing junk. */
static int parseNumber(const char* text, dataExchangeOptionType type, Setting* setting) {
    char* end = NULL;
    errno = 0;
    if (type == Int32) {
        long long value = strtoll(text, &end, 10);
        if (end == text || *end != '\0' || errno == ERANGE || value < INT32_MIN ||
            value > INT32_MAX || (*text != '-' && *text != '+' && (*text < '0' || *text > '9')))
            return 0;
        setting->signedValue = value;
        return 1;
    }
    if (*text < '0' || *text > '9')
        return 0;
    setting->unsignedValue = strtoull(text, &end, 10);
    if (*end != '\0' || errno == ERANGE)
        return 0;
    return type == Uint64 || setting->unsignedValue <= UINT32_MAX;
}

/* Writes the handle's error list to standard error; returns whether there was any. */
static int printErrors(dataExchangeLibraryImp* handle) {
    int32_t result;
    errorText[0] = '\0';
    result = dataExchangeGetLastErrors(handle, sizeof errorText, errorText);
    if (result == BufferTooSmall) {
        cliTextWriteEscaped(messages, errorText, sizeof errorText);
        cliTextPrintf(messages, "\n" TOOL ": further messages were cut\n");
        /* What was shown stays readable as a text, without its last byte. */
        errorText[sizeof errorText - 1] = '\0';
        return 1;
    }
    /* Messages quote the server's answers: never raw to a terminal. */
    cliTextWriteEscaped(messages, errorText, strlen(errorText));
    return errorText[0] != '\0';
}

static void printFailure(dataExchangeLibraryImp* handle, const char* what, int32_t result) {
    if (!printErrors(handle))
        cliTextPrintf(messages, TOOL ": %s failed with result %d\n", what, (int)result);
}

/* Reads back what a clipping setter stored, to tell the user the value now in effect. */
static void printStoredValue(dataExchangeLibraryImp* handle, size_t flag) {
    const char* name = optionFlags[flag].option;
    int32_t i32 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    if (name == NULL) /* --threads, --level or --retries: the handle's settings that are cropped */
        cliTextPrintf(
            messages, TOOL ": warning: %s stored as %d\n", optionFlags[flag].flag,
            strcmp(optionFlags[flag].flag, "--threads") == 0 ? DATAEXCHANGE_MAX_PACKING_THREADS
            : strcmp(optionFlags[flag].flag, "--level") == 0 ? DATAEXCHANGE_MAX_COMPRESSION_LEVEL
                                                             : DATAEXCHANGE_MAX_RETRIES);
    else if (optionFlags[flag].type == Int32 &&
             dataExchangeGetInt32Option(handle, name, Current, &i32) == Success)
        cliTextPrintf(messages, TOOL ": warning: %s stored as %" PRId32 "\n",
                      optionFlags[flag].flag, i32);
    else if (optionFlags[flag].type == Uint32 &&
             dataExchangeGetUint32Option(handle, name, Current, &u32) == Success)
        cliTextPrintf(messages, TOOL ": warning: %s stored as %" PRIu32 "\n",
                      optionFlags[flag].flag, u32);
    else if (optionFlags[flag].type == Uint64 &&
             dataExchangeGetUint64Option(handle, name, Current, &u64) == Success)
        cliTextPrintf(messages, TOOL ": warning: %s stored as %" PRIu64 "\n",
                      optionFlags[flag].flag, u64);
}

/* The first wait before a retry: short enough for a user at the terminal, long enough for a
 * server that restarts. */
#define RETRY_DELAY_MILLISECONDS 1000
/* Three attempts in all unless --retries says otherwise. */
#define DEFAULT_RETRIES 2

/* The level the library packs at unless asked, which --store-incompressible alone keeps. */
#define DEFAULT_LEVEL 6

static int32_t applySetting(dataExchangeLibraryImp* handle, const Setting* setting,
                            int storeIncompressible) {
    const char* name = optionFlags[setting->flag].option;
    if (name == NULL && strcmp(optionFlags[setting->flag].flag, "--threads") == 0)
        return dataExchangeSetPackingThreads(handle, (uint32_t)setting->unsignedValue);
    if (name == NULL && strcmp(optionFlags[setting->flag].flag, "--level") == 0)
        return dataExchangeSetCompression(handle, (uint32_t)setting->unsignedValue,
                                          (uint32_t)storeIncompressible);
    if (name == NULL && strcmp(optionFlags[setting->flag].flag, "--retries") == 0)
        return dataExchangeSetRetries(handle, (uint32_t)setting->unsignedValue,
                                      RETRY_DELAY_MILLISECONDS);
    if (name == NULL)
        return dataExchangeSetStallTimeout(handle, (uint32_t)setting->unsignedValue);
    switch (optionFlags[setting->flag].type) {
    case Int32:
        return dataExchangeSetInt32Option(handle, name, (int32_t)setting->signedValue);
    case Uint32:
        return dataExchangeSetUint32Option(handle, name, (uint32_t)setting->unsignedValue);
    case Uint64:
        return dataExchangeSetUint64Option(handle, name, setting->unsignedValue);
    default:
        return dataExchangeSetStringOption(handle, name, setting->text);
    }
}

/* ---- --list-options ------------------------------------------------------------------------ */

/* Far more than the library offers; a longer enumeration is cut rather than overflowing. */
#define MAX_OPTIONS 64

typedef struct {
    const char* name;
    const char* summary;
    uint32_t access;
    uint32_t type;
} OptionEntry;

typedef struct {
    OptionEntry entries[MAX_OPTIONS];
    size_t count;
} OptionList;

static void DATAEXCHANGE_CALL collectOption(const char* name, const char* summary,
                                            const char* description, uint32_t access, uint32_t type,
                                            void* context) {
    OptionList* list = (OptionList*)context;
    (void)description;
    if (list->count == MAX_OPTIONS)
        return;
    list->entries[list->count].name = name;
    list->entries[list->count].summary = summary;
    list->entries[list->count].access = access;
    list->entries[list->count].type = type;
    ++list->count;
}

static const char* typeName(uint32_t type) {
    static const char* const names[] = {"Int32", "Uint32", "Uint64", "String"};
    return type < 4 ? names[type] : "unknown type";
}

/* Prints one value as " label value"; NotAvailable means the option has no such value and
 * prints "none". Any other failure is reported and returned, the listing goes on. */
static int32_t printValue(dataExchangeLibraryImp* handle, const OptionEntry* option,
                          uint32_t which) {
    static const char* const labels[] = {"current", "min", "max", "default"};
    int32_t result;
    int32_t i32 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    cliTextPrintf(stdout, "%s%s ", which == Current ? "" : ", ", labels[which]);
    switch (option->type) {
    case Int32:
        result = dataExchangeGetInt32Option(handle, option->name, which, &i32);
        if (result == Success)
            cliTextPrintf(stdout, "%" PRId32, i32);
        break;
    case Uint32:
        result = dataExchangeGetUint32Option(handle, option->name, which, &u32);
        if (result == Success)
            cliTextPrintf(stdout, "%" PRIu32, u32);
        break;
    case Uint64:
        result = dataExchangeGetUint64Option(handle, option->name, which, &u64);
        if (result == Success)
            cliTextPrintf(stdout, "%" PRIu64, u64);
        break;
    case String:
        result =
            dataExchangeGetStringOption(handle, option->name, which, sizeof valueText, valueText);
        if (result == Success)
            cliTextPrintf(stdout, "\"%s\"", valueText);
        break;
    default:
        cliTextPrintf(stdout, "?");
        return Success;
    }
    if (result == NotAvailable) {
        cliTextPrintf(stdout, "none");
        return Success;
    }
    if (result != Success) {
        cliTextPrintf(stdout, "unreadable");
        fflush(stdout);
        printFailure(handle, option->name, result);
    }
    return result;
}

static int32_t listOptions(dataExchangeLibraryImp* handle) {
    OptionList list;
    int32_t failure = Success;
    size_t i;
    uint32_t which;
    list.count = 0;
    dataExchangeEnumerateOptions(handle, collectOption, &list);
    for (i = 0; i < list.count; ++i) {
        const OptionEntry* option = &list.entries[i];
        cliTextPrintf(stdout, "%s (%s): %s\n    ", option->name, typeName(option->type),
                      option->summary);
        for (which = Current; which <= Default; ++which) {
            int32_t result = printValue(handle, option, which);
            if (result != Success && failure == Success)
                failure = result;
        }
        cliTextPrintf(stdout, "\n");
    }
    return failure;
}

/* ---- upload -------------------------------------------------------------------------------- */

static const char* destinationName(uint32_t location) {
    if (location == SharedFolder)
        return "shared folder";
    if (location == Server)
        return "server";
    return "unknown destination";
}

static int32_t upload(dataExchangeLibraryImp* handle, const char* path, int showProgress,
                      int verbose, int* cancelled, int* kept) {
    static char storedName[sizeof deliveredName];
    uint32_t location = 0;
    CliProgress progress;
    int32_t result = cliProgressStart(handle, &progress, showProgress, verbose);
    if (result == Success)
        result =
            dataExchangeUploadData(handle, path, sizeof deliveredName, deliveredName, &location);
    *cancelled = cliProgressFinish(&progress, result);
    if (result == Success || result == BufferTooSmall) {
        /* Either way the data arrived; a cut name has no terminator, so it is printed by
         * length. */
        size_t length = result == Success ? strlen(deliveredName) : sizeof deliveredName;
        cliTextPrintf(stdout, "Delivered as: ");
        cliTextWriteEscaped(stdout, deliveredName, length);
        cliTextPrintf(stdout, "\nDestination: %s\n", destinationName(location));
        /* A server that keeps every upload may store it under another name; it names it, so
         * the name is the server's text. */
        if (dataExchangeGetStoredName(handle, sizeof storedName, storedName) == Success &&
            storedName[0] != '\0' && strncmp(storedName, deliveredName, length + 1) != 0) {
            cliTextPrintf(stdout, "Stored as: ");
            cliTextWriteEscaped(stdout, storedName, strlen(storedName));
            cliTextPrintf(stdout, "\n");
        }
    }
    errorText[0] = '\0';
    if (result != Success)
        printFailure(handle, "upload", result);
    /* The library's own last line names the item; this says what it means for the user. */
    *kept = result == DataHandlingFailed && !*cancelled && cliSpoolKept(errorText);
    if (*kept)
        cliTextPrintf(messages, TOOL ": not delivered yet; --send-spooled with the same spool "
                                     "sends it later\n");
    /* After the errors were read: setting the callback empties the list. */
    dataExchangeSetProgressCallback(handle, NULL, NULL);
    return result;
}

/* --send-spooled: every item of the spool, then the counts; each item that remains has a
 * message of its own in the error list. */
static int32_t sendSpooled(dataExchangeLibraryImp* handle, const char* folder, int showProgress,
                           int verbose, int* cancelled) {
    uint32_t delivered = 0, remaining = 0;
    CliProgress progress;
    int32_t result;
    cliTextPrintf(stdout, "Spool: %s\n", folder);
    result = cliProgressStart(handle, &progress, showProgress, verbose);
    if (result == Success)
        result = dataExchangeSendSpooled(handle, &delivered, &remaining);
    *cancelled = cliProgressFinish(&progress, result);
    cliSpoolReportSent(delivered, remaining);
    if (result != Success)
        printFailure(handle, "--send-spooled", result);
    dataExchangeSetProgressCallback(handle, NULL, NULL);
    return result;
}

static void printVersion(void) {
    char version[256];
    char revision[64];
    if (dataExchangeVersion(sizeof version, version) != Success)
        strcpy(version, "(unknown version)");
    if (dataExchangeSha1(sizeof revision, revision) != Success)
        strcpy(revision, "(unknown revision)");
    printf("dataExchange %s\nrevision %s\n", version, revision);
}

int main(int argc, char** argv) {
    /* UTF-8, as the library takes texts; on Windows read again from the UTF-16 command line,
     * since argv holds only what the ANSI code page can. */
    char** arguments = cliTextArguments(&argc, argv);
    /* One setting per argument at most, so argc bounds them. */
    Setting* settings = (Setting*)malloc((size_t)argc * sizeof *settings);
    size_t settingCount = 0;
    const char* path = NULL;
    char* systemPath = NULL; /* the path as --ansi-paths passes it */
    /* --list-options, --list-spooled or --send-spooled instead of an upload */
    const char* command = NULL;
    const char* spoolFolder = NULL; /* --spool=DIR, or the user's own after a bare --spool */
    char* ownSpool = NULL;
    int spoolOfUser = 0;
    int ansiPaths = 0;
    int noStreaming = 0;
    int endOfFlags = 0;
    int removePackage = 0;
    int storeIncompressible = 0;
    int levelGiven = 0;
    int useProxy = 0;
    int plain = 0;
    int verbose = 0;
    int showProgress = 1;
    int cancelled = 0;
    int kept = 0;
    int status;
    int32_t result = Success;
    dataExchangeLibraryImp* handle;
    int i;

    messages = stderr;
    if (arguments == NULL || settings == NULL) {
        fprintf(stderr, TOOL ": out of memory\n");
        free(settings);
        free(arguments);
        return ExitFailure;
    }

    for (i = 1; i < argc; ++i) {
        const char* arg = arguments[i];
        const char* value = NULL;
        size_t nameLength;
        size_t flag;
        if (endOfFlags || arg[0] != '-' || arg[1] == '\0') {
            if (path != NULL) {
                status = usageError("more than one path given: '%s'", arg);
                goto done;
            }
            path = arg;
            continue;
        }
        if (strcmp(arg, "--") == 0) {
            endOfFlags = 1;
            continue;
        }
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            printHelp();
            status = ExitSuccess;
            goto done;
        }
        if (strcmp(arg, "--version") == 0) {
            printVersion();
            status = ExitSuccess;
            goto done;
        }
        if (strcmp(arg, "--list-options") == 0 || strcmp(arg, "--list-spooled") == 0 ||
            strcmp(arg, "--send-spooled") == 0) {
            if (command != NULL && strcmp(command, arg) != 0) {
                status = usageError("%s and %s go one at a time", command, arg);
                goto done;
            }
            command = arg;
            continue;
        }
        /* The folder only after '=': an optional value as the next argument would take PATH. */
        if (strcmp(arg, "--spool") == 0) {
            spoolOfUser = 1;
            spoolFolder = NULL;
            continue;
        }
        if (strncmp(arg, "--spool=", 8) == 0) {
            if (arg[8] == '\0') {
                status = usageError("%s", "--spool= needs a folder; a bare --spool keeps items in "
                                          "the user's own");
                goto done;
            }
            spoolOfUser = 0;
            spoolFolder = arg + 8;
            continue;
        }
        if (strcmp(arg, "--remove-package") == 0) {
            removePackage = 1;
            continue;
        }
        if (strcmp(arg, "--store-incompressible") == 0) {
            storeIncompressible = 1;
            continue;
        }
        if (strcmp(arg, "--use-proxy") == 0) {
            useProxy = 1;
            continue;
        }
        if (strcmp(arg, "--plain") == 0) {
            plain = 1;
            continue;
        }
        if (strcmp(arg, "--ansi-paths") == 0) {
            ansiPaths = 1;
            continue;
        }
        if (strcmp(arg, "--no-streaming") == 0) {
            noStreaming = 1;
            continue;
        }
        if (strcmp(arg, "--verbose") == 0) {
            verbose = 1;
            continue;
        }
        if (strcmp(arg, "--no-progress") == 0) {
            showProgress = 0;
            continue;
        }
        nameLength = strcspn(arg, "=");
        for (flag = 0; flag < OPTION_FLAG_COUNT; ++flag)
            if (strlen(optionFlags[flag].flag) == nameLength &&
                strncmp(arg, optionFlags[flag].flag, nameLength) == 0)
                break;
        if (flag == OPTION_FLAG_COUNT) {
            status = usageError("unknown flag '%s'", arg);
            goto done;
        }
        if (arg[nameLength] == '=')
            value = arg + nameLength + 1;
        else if (i + 1 < argc)
            value = arguments[++i];
        else {
            status = usageError("%s needs a value", optionFlags[flag].flag);
            goto done;
        }
        settings[settingCount].flag = flag;
        settings[settingCount].text = value;
        if (optionFlags[flag].type != String &&
            !parseNumber(value, optionFlags[flag].type, &settings[settingCount])) {
            status = usageError("%s: '%s' is not a number in the option's range",
                                optionFlags[flag].flag, value);
            goto done;
        }
        ++settingCount;
    }
    if (command != NULL && path != NULL) {
        status = usageError("%s does not upload; '%s' was given as well", command, path);
        goto done;
    }
    if (command == NULL && path == NULL) {
        status = usageError("%s", "no file or folder to upload given");
        goto done;
    }
    /* The spool commands work on the folder --spool names, and without it on the user's own. */
    if (command != NULL && strcmp(command, "--list-options") != 0 && spoolFolder == NULL)
        spoolOfUser = 1;
    if (spoolOfUser && (spoolFolder = ownSpool = cliSpoolDefaultFolder()) == NULL) {
        status = usageError("%s", "the user's own spool folder is unknown (no home folder); name "
                                  "one with --spool=DIR");
        goto done;
    }
    /* Converted here, as a narrow main() would have got it, so that the library sees exactly
     * what it saw before Unicode paths. */
    if (path != NULL && ansiPaths && (path = systemPath = cliTextSystemPath(path)) == NULL) {
        cliTextPrintf(messages, TOOL ": out of memory\n");
        status = ExitFailure;
        goto done;
    }

    cliLogStart(messages, verbose);
    handle = dataExchangeInit(NULL, sizeof errorText, errorText);
    if (handle == NULL) {
        cliTextPrintf(messages, TOOL ": the library could not be opened: %s\n", errorText);
        status = ExitFailure;
        goto done;
    }
    /* A folder packs on every core and a passing fault is tried again unless the flags say
     * otherwise. */
    result = dataExchangeSetPackingThreads(handle, 0);
    if (result == Success)
        result = dataExchangeSetRetries(handle, DEFAULT_RETRIES, RETRY_DELAY_MILLISECONDS);
    for (i = 0; (size_t)i < settingCount && result == Success; ++i) {
        result = applySetting(handle, &settings[i], storeIncompressible);
        levelGiven |= strcmp(optionFlags[settings[i].flag].flag, "--level") == 0;
        if (result == ValueCropped) {
            printErrors(handle);
            printStoredValue(handle, settings[i].flag);
            result = Success;
        } else if (result != Success) {
            printFailure(handle, optionFlags[settings[i].flag].flag, result);
        }
    }
    if (result == Success && storeIncompressible && !levelGiven)
        result = dataExchangeSetCompression(handle, DEFAULT_LEVEL, 1);
    if (result == Success && removePackage)
        result = dataExchangeSetRemovePackage(handle, 1);
    if (result == Success && useProxy)
        result = dataExchangeSetUseConfiguredProxy(handle, 1);
    if (result == Success && !plain)
        result = dataExchangeSetVerifiedDelivery(handle, 1);
    /* Any name reaches the file system unless --ansi-paths asks for the narrow encoding. */
    if (result == Success && !ansiPaths)
        result = dataExchangeSetUnicodePaths(handle, 1);
    /* Streamed wherever the library has libcurl; without it, Qt posts as before. */
    if (result == Success && !noStreaming && dataExchangeSetStreamingUpload(handle, 1) != Success)
        dataExchangeGetLastErrors(handle, 0, NULL);
    if (result == Success && spoolFolder != NULL)
        result = dataExchangeSetSpoolFolder(handle, spoolFolder);
    if (result == Success) {
        if (command == NULL)
            result = upload(handle, path, showProgress, verbose, &cancelled, &kept);
        else if (strcmp(command, "--list-options") == 0)
            result = listOptions(handle);
        else if (strcmp(command, "--send-spooled") == 0)
            result = sendSpooled(handle, spoolFolder, showProgress, verbose, &cancelled);
        else if ((result = cliSpoolList(handle, spoolFolder)) == Success)
            printErrors(handle); /* items set aside while listing */
        else
            printFailure(handle, command, result);
    }
    dataExchangeClose(&handle);
    cliLogEnd();
    status = cancelled ? ExitCancelled : kept ? ExitSpooled : exitStatusOf(result);

done:
    free(ownSpool);
    free(systemPath);
    free(settings);
    free(arguments);
    return status;
}
