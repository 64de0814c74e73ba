/*
 * Text in and out of dataexchange-upload. Inside the program every text is UTF-8, as the
 * library takes and gives it. On Windows the arguments come from the UTF-16 command line, so
 * that a name outside the ANSI code page arrives whole, and a console is written in UTF-16,
 * so that it shows names whatever its code page; redirected output stays UTF-8 bytes. On other
 * systems arguments and output pass through unchanged.
 */
#ifndef DATAEXCHANGE_CLI_TEXT_H
#define DATAEXCHANGE_CLI_TEXT_H

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

#if defined(__MINGW_PRINTF_FORMAT)
#define CLI_TEXT_PRINTF(string, first)                                                             \
    __attribute__((__format__(__MINGW_PRINTF_FORMAT, string, first)))
#elif defined(__GNUC__)
#define CLI_TEXT_PRINTF(string, first) __attribute__((__format__(printf, string, first)))
#else
#define CLI_TEXT_PRINTF(string, first)
#endif

/* The program's arguments in UTF-8, argv[0] first and a NULL after the last; *argc is set to
 * their number. One block from malloc: free() releases it. NULL when out of memory or when
 * Windows cannot give the command line. */
char** cliTextArguments(int* argc, char** argv);

/* A copy of the UTF-8 path in the system's narrow encoding, for a library that takes paths as
 * the narrow file functions do: on Windows the ANSI code page, with the best-fit replacements
 * a narrow main() gets ("łódź" becomes "lodz"); elsewhere the same bytes. Free it with free();
 * NULL when out of memory. */
char* cliTextSystemPath(const char* path);

/* Writes length bytes of UTF-8 to stream: to a Windows console as UTF-16 (text that is not
 * UTF-8 is read in the ANSI code page), anywhere else as the bytes they are. */
void cliTextWrite(FILE* stream, const char* text, size_t length);

/* A copy of text that a server, a file or the library's log gave, safe for a terminal: control
 * characters but line feeds and tabs (C0, DEL and C1, ESC and CSI among them) written as \xNN.
 * Free it with free(); NULL when out of memory. */
char* cliTextEscaped(const char* text);

/* cliTextWrite of length bytes of such text, escaped. */
void cliTextWriteEscaped(FILE* stream, const char* text, size_t length);

/* fprintf and vfprintf through cliTextWrite. */
void cliTextPrintf(FILE* stream, const char* format, ...) CLI_TEXT_PRINTF(2, 3);
void cliTextVprintf(FILE* stream, const char* format, va_list arguments) CLI_TEXT_PRINTF(2, 0);

#endif
