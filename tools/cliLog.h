/*
 * The library's log lines in dataexchange-upload. They never reach the terminal by themselves,
 * so that they cannot run into the progress line or the result: the library's log callback
 * keeps them, --verbose shows them between progress updates, and after a failure the last few
 * are shown as context. Once the work is done, --verbose shows each line as it comes, those
 * the library writes while it unloads included.
 */
#ifndef DATAEXCHANGE_CLI_LOG_H
#define DATAEXCHANGE_CLI_LOG_H

#include <stdio.h>

/* Takes the library's lines from now on; they are shown on messages. */
void cliLogStart(FILE* messages, int verbose);

/* Shows the lines kept since the last call, or with lastOnly the last five under a heading. */
void cliLogShow(int lastOnly);

/* The work is done: a verbose run shows what is kept and, from now on, each line at once. */
void cliLogEnd(void);

#endif
