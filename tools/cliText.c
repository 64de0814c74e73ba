#include "cliText.h"

#include <stdlib.h>
#include <string.h>

#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <io.h>
#include <limits.h>
#include <shellapi.h>

/* UTF-16 of length bytes of text in codePage (-1: up to its zero), terminated, its units in
 * *units; NULL when it does not convert. With MB_ERR_INVALID_CHARS in flags, bytes that are not
 * of that code page fail it. */
static wchar_t* wideText(UINT codePage, DWORD flags, const char* text, int length, int* units) {
    const int size = MultiByteToWideChar(codePage, flags, text, length, NULL, 0);
    wchar_t* wide = size > 0 ? (wchar_t*)malloc(((size_t)size + 1) * sizeof *wide) : NULL;
    if (wide == NULL)
        return NULL;
    *units = MultiByteToWideChar(codePage, flags, text, length, wide, size);
    wide[*units] = L'\0';
    return wide;
}

/* Converts the terminated wide text into size bytes at narrow (none: only measures); returns
 * the bytes it takes in codePage with its zero, at least the zero's. */
static size_t narrowText(UINT codePage, const wchar_t* wide, char* narrow, int size) {
    const int bytes = WideCharToMultiByte(codePage, 0, wide, -1, narrow, size, NULL, NULL);
    if (narrow != NULL && bytes <= 0)
        narrow[0] = '\0';
    return bytes > 0 ? (size_t)bytes : 1;
}

char** cliTextArguments(int* argc, char** argv) {
    int count = 0, i;
    size_t size;
    char** arguments;
    char* next;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    (void)argv; /* in the ANSI code page, where other characters are lost */
    if (wide == NULL)
        return NULL;
    size = ((size_t)count + 1) * sizeof *arguments;
    for (i = 0; i < count; ++i)
        size += narrowText(CP_UTF8, wide[i], NULL, 0);
    /* The pointers first, then the texts they point to, in one block. */
    arguments = size <= INT_MAX ? (char**)malloc(size) : NULL;
    if (arguments != NULL) {
        next = (char*)(arguments + count + 1);
        for (i = 0; i < count; ++i) {
            arguments[i] = next;
            next +=
                narrowText(CP_UTF8, wide[i], next, (int)(size - (size_t)(next - (char*)arguments)));
        }
        arguments[count] = NULL;
        *argc = count;
    }
    LocalFree(wide);
    return arguments;
}

char* cliTextSystemPath(const char* path) {
    int units = 0;
    wchar_t* wide = wideText(CP_UTF8, 0, path, -1, &units);
    const size_t bytes = wide == NULL ? 0 : narrowText(CP_ACP, wide, NULL, 0);
    char* narrow = bytes > 0 && bytes <= INT_MAX ? (char*)malloc(bytes) : NULL;
    if (narrow != NULL)
        narrowText(CP_ACP, wide, narrow, (int)bytes);
    free(wide);
    return narrow;
}

/* The console behind stream, or NULL when it is a file, a pipe or nothing. */
static HANDLE consoleOf(FILE* stream) {
    const HANDLE handle = (HANDLE)_get_osfhandle(_fileno(stream));
    DWORD mode;
    return handle != INVALID_HANDLE_VALUE && GetConsoleMode(handle, &mode) ? handle : NULL;
}

/* A console shows UTF-16 whatever its code page. The text is UTF-8 unless it holds bytes that
 * UTF-8 has no use for: then it is a name the library gave back as it was given, in the ANSI
 * code page (--ansi-paths). Returns whether any of it reached the console. */
static int writeConsole(HANDLE console, const char* text, int length) {
    int units = 0, done = 0;
    DWORD out = 1;
    wchar_t* wide = wideText(CP_UTF8, MB_ERR_INVALID_CHARS, text, length, &units);
    if (wide == NULL)
        wide = wideText(CP_ACP, 0, text, length, &units);
    if (wide == NULL)
        return 0;
    /* In pieces small enough for any console, never between the two halves of a pair. */
    while (out > 0 && done < units) {
        int piece = units - done > 8192 ? 8192 : units - done;
        if (done + piece < units && wide[done + piece - 1] >= 0xD800 &&
            wide[done + piece - 1] <= 0xDBFF)
            --piece;
        if (!WriteConsoleW(console, wide + done, (DWORD)piece, &out, NULL))
            out = 0;
        done += (int)out;
    }
    free(wide);
    /* What reached the console is not written again. */
    return done > 0;
}

void cliTextWrite(FILE* stream, const char* text, size_t length) {
    const HANDLE console = length > 0 && length <= INT_MAX ? consoleOf(stream) : NULL;
    /* What the stream holds comes first. */
    if (console != NULL && fflush(stream) == 0 && writeConsole(console, text, (int)length))
        return;
    fwrite(text, 1, length, stream);
}

void cliTextVprintf(FILE* stream, const char* format, va_list arguments) {
    char small[1024];
    char* text = small;
    va_list again;
    int length;
    if (consoleOf(stream) == NULL) {
        vfprintf(stream, format, arguments);
        return;
    }
    va_copy(again, arguments);
    length = vsnprintf(small, sizeof small, format, arguments);
    if (length >= (int)sizeof small && (text = (char*)malloc((size_t)length + 1)) != NULL)
        vsnprintf(text, (size_t)length + 1, format, again);
    va_end(again);
    if (length > 0 && text != NULL)
        cliTextWrite(stream, text, (size_t)length);
    if (text != small)
        free(text);
}

#else

char** cliTextArguments(int* argc, char** argv) {
    /* The pointers only: the texts are already what the library takes. */
    char** arguments = (char**)malloc(((size_t)*argc + 1) * sizeof *arguments);
    if (arguments != NULL)
        memcpy(arguments, argv, ((size_t)*argc + 1) * sizeof *arguments);
    return arguments;
}

char* cliTextSystemPath(const char* path) {
    char* copy = (char*)malloc(strlen(path) + 1);
    if (copy != NULL)
        strcpy(copy, path);
    return copy;
}

void cliTextWrite(FILE* stream, const char* text, size_t length) {
    fwrite(text, 1, length, stream);
}

void cliTextVprintf(FILE* stream, const char* format, va_list arguments) {
    vfprintf(stream, format, arguments);
}

#endif

void cliTextPrintf(FILE* stream, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    cliTextVprintf(stream, format, arguments);
    va_end(arguments);
}

/* The length of the well-formed UTF-8 sequence at text, or 0; overlong forms and surrogates
 * are not told apart here: they are no controls. */
static size_t sequenceLength(const unsigned char* text) {
    size_t length = text[0] < 0x80                       ? 1
                    : text[0] >= 0xc2 && text[0] <= 0xdf ? 2
                    : text[0] >= 0xe0 && text[0] <= 0xef ? 3
                    : text[0] >= 0xf0 && text[0] <= 0xf4 ? 4
                                                         : 0;
    for (size_t n = 1; n < length; ++n)
        if (text[n] < 0x80 || text[n] > 0xbf)
            return 0;
    return length;
}

char* cliTextEscaped(const char* text) {
    /* At most four bytes ("\xNN") for each byte of the text. */
    char* shown = (char*)malloc(strlen(text) * 4 + 1);
    char* out = shown;
    const unsigned char* c = (const unsigned char*)text;
    if (shown == NULL)
        return NULL;
    while (*c != '\0') {
        const size_t length = sequenceLength(c);
        /* C1 controls: U+0080 to U+009F in UTF-8, or a lone byte 0x80 to 0x9F (which an 8-bit
         * terminal takes as a control too); a terminal takes 0x9B like ESC [. */
        const int control = (*c < 0x20 && *c != '\n' && *c != '\t') || *c == 0x7f ||
                            (length == 2 && c[0] == 0xc2 && c[1] < 0xa0) ||
                            (length == 0 && *c >= 0x80 && *c < 0xa0);
        if (control) {
            out += sprintf(out, "\\x%02X", (unsigned)*c++);
            continue;
        }
        for (size_t n = length == 0 ? 1 : length; n > 0; --n)
            *out++ = (char)*c++;
    }
    *out = '\0';
    return shown;
}

void cliTextWriteEscaped(FILE* stream, const char* text, size_t length) {
    char* copy = (char*)malloc(length + 1);
    char* shown = NULL;
    if (copy != NULL) {
        memcpy(copy, text, length);
        copy[length] = '\0';
        shown = cliTextEscaped(copy);
    }
    /* Out of memory: nothing rather than raw text. */
    if (shown != NULL)
        cliTextWrite(stream, shown, strlen(shown));
    free(shown);
    free(copy);
}
