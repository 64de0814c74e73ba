// The opt-in extension exports: each stores one setting of the handle.
#include "api/dataExchangeLibraryImp.h"

namespace {

template <typename Apply> int32_t setExtension(dataExchangeLibraryImp* handle, Apply apply) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    apply(handle->extensions);
    return Success;
}

} // namespace

using Extensions = dataExchangeLibraryImp::Extensions;

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

} // extern "C"
