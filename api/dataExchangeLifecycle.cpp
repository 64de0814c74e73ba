// Handle lifecycle, error list and build identity exports.
#include "api/LibraryGlobals.h"
#include "api/dataExchangeLibraryImp.h"
#include "options/OptionCatalogue.h"
#include "options/dataExchangeOptionInternal.h"

#include <cstring>
#include <new>
#include <string>

using namespace measurement::dataExchange;

namespace {

// Init's own fall-back when the error list unexpectedly yields nothing.
constexpr const char* unknownInitError = "Unknown error initialising the library";
constexpr const char* noOptionsError = "No options defined";

// Bounded copy as strncpy does it, reporting whether the text and its terminator fitted.
int32_t copyOut(const std::string& text, size_t bufferSize, char* buffer) {
    if (bufferSize != 0)
        std::strncpy(buffer, text.c_str(), bufferSize);
    return text.size() < bufferSize ? Success : BufferTooSmall;
}

int32_t copyBuildString(const std::string& text, size_t bufferSize, char* buffer) {
    // A null buffer is only refused when a size is given: (0, NULL) reports BufferTooSmall.
    if (buffer == nullptr && bufferSize != 0)
        return InvalidArgument;
    return copyOut(text, bufferSize, buffer);
}

// Unlike the other exports, Init always terminates its buffer and cuts silently.
void reportInitFailure(dataExchangeLibraryImp& instance, size_t bufferSize, char* buffer) {
    if (buffer == nullptr || bufferSize == 0)
        return;
    std::string text;
    if (!instance.takeErrors(text))
        text = unknownInitError;
    const size_t length = text.size() + 1 < bufferSize ? text.size() : bufferSize - 1;
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

} // namespace

extern "C" {

DATAEXCHANGE_API dataExchangeLibraryImp* DATAEXCHANGE_CALL dataExchangeInit(void* /*reserved*/,
                                                                            size_t errorBufferSize,
                                                                            char* errorBuffer) {
    auto* instance = new (std::nothrow) dataExchangeLibraryImp();
    if (instance == nullptr)
        return nullptr;
    if (!catalogueBuilder()(*instance).empty()) {
        instance->initialised = true;
        return instance;
    }
    instance->appendError(noOptionsError);
    reportInitFailure(*instance, errorBufferSize, errorBuffer);
    delete instance;
    return nullptr;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeClose(dataExchangeLibraryImp** handle) {
    if (handle == nullptr)
        return InvalidArgument;
    if (*handle == nullptr)
        return Success;
    for (auto& entry : (*handle)->options) {
        delete entry.second;
        entry.second = nullptr;
    }
    delete *handle;
    *handle = nullptr;
    return Success;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetLastErrors(dataExchangeLibraryImp* handle,
                                                                     size_t bufferSize,
                                                                     char* buffer) {
    if (handle == nullptr)
        return InvalidArgument;
    std::string text;
    if (!handle->takeErrors(text))
        return Success;
    // Nowhere to write: the messages go, as they do for a buffer that is too small.
    if (buffer == nullptr && bufferSize != 0)
        return InvalidArgument;
    return copyOut(text, bufferSize, buffer);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeVersion(size_t bufferSize, char* buffer) {
    return copyBuildString(fullVersion, bufferSize, buffer);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSha1(size_t bufferSize, char* buffer) {
    return copyBuildString(buildCommit, bufferSize, buffer);
}

} // extern "C"
