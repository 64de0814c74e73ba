/*
 * The progress display of dataexchange-upload while the library works, and Ctrl+C, which
 * cancels through the progress callback.
 */
#ifndef DATAEXCHANGE_CLI_PROGRESS_H
#define DATAEXCHANGE_CLI_PROGRESS_H

#include "dataExchangeExt.h"

typedef struct {
    int show;
    int terminal;   /* one redrawn line per stage instead of plain lines */
    int cancelled;  /* the callback asked the library to stop */
    uint32_t stage; /* of the previous call; 0 before the first */
    uint64_t done;  /* of the previous call */
    uint64_t total; /* of the previous call */
    double started; /* when the stage began */
    double moved;   /* when its count last changed */
    int lineLength; /* of the open terminal line, 0 when there is none */
    int verbose;    /* show the library's debug lines as they come */
} CliProgress;

/* Sets the progress callback and catches Ctrl+C. The callback is set even without a display:
 * it is what cancels. */
int32_t cliProgressStart(dataExchangeLibraryImp* handle, CliProgress* progress, int show,
                         int verbose);

/* Once the library's call returned: the progress line is closed, and the debug lines are shown
 * as they came (--verbose) or, after a failure, the last few as context. A cancel that came too
 * late to stop the work leaves a success; returns whether the call was cancelled. */
int cliProgressFinish(CliProgress* progress, int32_t result);

#endif
