// The spool's exports: where failed items are kept, sending them, listing them.
#include "api/dataExchangeLibraryImp.h"
#include "transfer/Spool.h"

#include <cstring>
#include <string>

using measurement::dataExchange::Spool;

namespace {

std::string noSpool() {
    return "No spool folder set";
}

} // namespace

extern "C" {

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetSpoolFolder(dataExchangeLibraryImp* handle, const char* folder) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    handle->extensions.spoolFolder = folder != nullptr ? folder : "";
    return Success;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeSendSpooled(dataExchangeLibraryImp* handle,
                                                                   uint32_t* delivered,
                                                                   uint32_t* remaining) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    uint32_t sent = 0, left = 0;
    int32_t result = InvalidArgument;
    if (handle->extensions.spoolFolder.empty())
        handle->appendError(noSpool());
    else
        result = Spool(QString::fromStdString(handle->extensions.spoolFolder))
                     .sendAll(*handle, sent, left);
    if (delivered != nullptr)
        *delivered = sent;
    if (remaining != nullptr)
        *remaining = left;
    return result;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeListSpooled(dataExchangeLibraryImp* handle,
                                                                   size_t bufferSize,
                                                                   char* buffer) {
    if (handle == nullptr || (buffer == nullptr && bufferSize != 0))
        return InvalidArgument;
    handle->clearErrors();
    if (handle->extensions.spoolFolder.empty()) {
        handle->appendError(noSpool());
        return InvalidArgument;
    }
    const std::string text =
        Spool(QString::fromStdString(handle->extensions.spoolFolder)).list(*handle);
    if (bufferSize != 0)
        std::strncpy(buffer, text.c_str(), bufferSize);
    return text.size() < bufferSize ? Success : BufferTooSmall;
}

} // extern "C"
