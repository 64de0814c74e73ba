// The compiler's own text for the enclosing function's full signature, used in messages that
// name the operation that was reached.
#pragma once

#if defined(_MSC_VER)
#define DATAEXCHANGE_SIGNATURE __FUNCSIG__
#else
#define DATAEXCHANGE_SIGNATURE __PRETTY_FUNCTION__
#endif
