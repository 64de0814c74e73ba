// The opt-in extension exports: each stores one setting of the handle.
#include "LogSink.h"
#include "api/dataExchangeLibraryImp.h"
#include "server/CurlUpload.h"
#include "transfer/ParallelPacker.h"
#include "transfer/RetryPolicy.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

template <typename Apply> int32_t setExtension(dataExchangeLibraryImp* handle, Apply apply) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    apply(handle->extensions);
    return Success;
}

using Extensions = dataExchangeLibraryImp::Extensions;

// A switch with room for more modes later: only 0 and 1 mean something today.
// `subject` carries its verb: "Verified delivery is", "Unicode paths are".
int32_t setSwitch(dataExchangeLibraryImp* handle, const char* subject, uint32_t enable,
                  bool Extensions::*member) {
    if (handle != nullptr && enable > 1) {
        handle->clearErrors();
        handle->appendError(std::string(subject) + " 0 (off) or 1 (on), not " +
                            std::to_string(enable));
        return InvalidArgument;
    }
    return setExtension(handle, [&](Extensions& e) { e.*member = enable == 1; });
}

// A bounded setting's result once `kept` was stored for `given`: "Retries are at most 20; 25 was
// cropped". `subject` carries its verb, as for switches.
int32_t cropped(dataExchangeLibraryImp* handle, int32_t result, const char* subject, uint32_t kept,
                uint32_t given) {
    if (result != Success || kept == given)
        return result;
    handle->appendError(std::string(subject) + " at most " + std::to_string(kept) + "; " +
                        std::to_string(given) + " was cropped");
    return ValueCropped;
}

} // namespace

extern "C" {

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetProgressCallback(
    dataExchangeLibraryImp* handle, dataExchangeProgressCallback callback, void* context) {
    return setExtension(handle, [&](Extensions& e) {
        e.progress = callback;
        e.progressContext = callback != nullptr ? context : nullptr;
    });
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStallTimeout(dataExchangeLibraryImp* handle, uint32_t seconds) {
    return setExtension(handle, [&](Extensions& e) { e.stallTimeoutSeconds = seconds; });
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetRemovePackage(dataExchangeLibraryImp* handle, uint32_t enable) {
    return setExtension(handle, [&](Extensions& e) { e.removePackage = enable != 0; });
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUseConfiguredProxy(dataExchangeLibraryImp* handle, uint32_t enable) {
    return setExtension(handle, [&](Extensions& e) { e.useConfiguredProxy = enable != 0; });
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetVerifiedDelivery(dataExchangeLibraryImp* handle, uint32_t enable) {
    return setSwitch(handle, "Verified delivery is", enable, &Extensions::verifiedDelivery);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetStoredName(dataExchangeLibraryImp* handle,
                                                                     size_t bufferSize,
                                                                     char* buffer) {
    if (handle == nullptr || (buffer == nullptr && bufferSize != 0))
        return InvalidArgument;
    if (bufferSize != 0)
        std::strncpy(buffer, handle->storedName.c_str(), bufferSize);
    return handle->storedName.size() < bufferSize ? Success : BufferTooSmall;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetPackingThreads(dataExchangeLibraryImp* handle, uint32_t threads) {
    using measurement::dataExchange::ParallelPacker;
    const uint32_t kept = std::min(threads, ParallelPacker::maximumThreads);
    const int32_t result = setExtension(handle, [&](Extensions& e) { e.packingThreads = kept; });
    return cropped(handle, result, "Packing threads are", kept, threads);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetCompression(
    dataExchangeLibraryImp* handle, uint32_t level, uint32_t storeIncompressible) {
    if (handle != nullptr && storeIncompressible > 1) {
        handle->clearErrors();
        handle->appendError("Storing what does not shrink is 0 (off) or 1 (on), not " +
                            std::to_string(storeIncompressible));
        return InvalidArgument;
    }
    const uint32_t kept = std::min<uint32_t>(level, DATAEXCHANGE_MAX_COMPRESSION_LEVEL);
    const int32_t result = setExtension(handle, [&](Extensions& e) {
        e.compressionLevel = int32_t(kept);
        e.storeIncompressible = storeIncompressible == 1;
    });
    return cropped(handle, result, "Compression level is", kept, level);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUnicodePaths(dataExchangeLibraryImp* handle, uint32_t enable) {
    return setSwitch(handle, "Unicode paths are", enable, &Extensions::unicodePaths);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSetRetries(dataExchangeLibraryImp* handle,
                                                                  uint32_t retries,
                                                                  uint32_t firstDelayMilliseconds) {
    using measurement::dataExchange::RetryPolicy;
    const uint32_t kept = std::min(retries, RetryPolicy::maximumRetries);
    const int32_t result = setExtension(handle, [&](Extensions& e) {
        e.retries = kept;
        e.retryDelayMilliseconds = firstDelayMilliseconds;
    });
    return cropped(handle, result, "Retries are", kept, retries);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStreamingUpload(dataExchangeLibraryImp* handle, uint32_t enable) {
    if (handle != nullptr && enable == 1 && !measurement::dataExchange::CurlUpload::available()) {
        handle->clearErrors();
        handle->appendError("Streaming upload is not available in this build");
        return NotAvailable;
    }
    return setSwitch(handle, "Streaming upload is", enable, &Extensions::streamingUpload);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetLogCallback(dataExchangeLogCallback callback, void* context) {
    measurement::LogSink::set(callback, context);
    return Success;
}

} // extern "C"
