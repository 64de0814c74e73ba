// The upload export.
#include "api/dataExchangeLibraryImp.h"

extern "C" DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeUploadData(
    dataExchangeLibraryImp* handle, const char* /*fileOrFolderName*/,
    size_t /*writtenFileNameSize*/, char* /*writtenFileName*/, uint32_t* /*usedLocation*/) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    handle->appendError("Unknown error handling data");
    return DataHandlingFailed;
}
