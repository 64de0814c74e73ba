/*
 * The spool of dataexchange-upload: where an item whose delivery failed waits to be sent again.
 * The per-user default folder, --list-spooled's listing and --send-spooled's report. Folders are
 * UTF-8, as the library takes them.
 */
#ifndef DATAEXCHANGE_CLI_SPOOL_H
#define DATAEXCHANGE_CLI_SPOOL_H

#include "dataExchangeExt.h"

#include <stdint.h>

/* The user's own spool folder, made by the library when it first keeps an item: on Windows
 * %LOCALAPPDATA%\dataExchange\spool, elsewhere $XDG_STATE_HOME/dataExchange/spool or
 * ~/.local/state/dataExchange/spool. From malloc: free() releases it. NULL when the system names
 * no such folder (no profile, no home) or when out of memory. */
char* cliSpoolDefaultFolder(void);

/* Prints the items of the handle's spool folder to standard output, oldest first, each with its
 * packed file, destinations, attempts and last cause, then their number. Messages the library
 * leaves (an item set aside) stay in the handle's error list. @return the library's result. */
int32_t cliSpoolList(dataExchangeLibraryImp* handle, const char* folder);

/* Prints what a send of the spool did to standard output. */
void cliSpoolReportSent(uint32_t delivered, uint32_t remaining);

/* Whether an upload's error list ends with the library's word that the item is kept in the
 * spool, where --send-spooled finds it. */
int cliSpoolKept(const char* errors);

#endif
