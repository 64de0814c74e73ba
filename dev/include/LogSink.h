// Where the library's log lines go: the platform's default output, or the callback a host set
// for the whole process. The platform's debugPrint and the zip writer's warnings ask it first.
#pragma once

#include "dataExchangeExt.h"

namespace measurement {

class LogSink {
public:
    // Replaces the callback (NULL: none). Waits for a call of the previous one running on
    // another thread, so that a host may free what the callback uses once this returns.
    static void set(dataExchangeLogCallback callback, void* context);
    // Hands one line (no line end) to the callback; false when none takes it and the caller
    // writes it to the default output.
    static bool deliver(dataExchangeLogLevel level, const char* line);
};

} // namespace measurement
