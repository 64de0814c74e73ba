// The zip writer's warnings about a file it could not open, read or write: on Qt's warning
// channel, or to the host's log callback as a LogWarning line when one is set.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
__attribute__((format(printf, 1, 2)))
#endif
void zipWarning(const char* format, ...);
