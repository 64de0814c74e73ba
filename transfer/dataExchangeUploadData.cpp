// The upload export: checks its arguments, runs a FileHandler and reports the outcome.
#include "System.h"
#include "UnicodePaths.h"
#include "api/dataExchangeLibraryImp.h"
#include "transfer/FileHandler.h"
#include "transfer/UploadPaths.h"

#include <cstring>
#include <string>

using measurement::UnicodePaths;
using measurement::dataExchange::FileHandler;
using measurement::dataExchange::UploadPaths;

namespace {

namespace message {
std::string emptyName() {
    return "Empty file or folder name provided";
}
std::string emptyBuffer() {
    return "Empty writtenFileName string provided";
}
std::string missing(const char* path) {
    return std::string("File or folder ") + path + " does not exist";
}
std::string orFallback(const std::string& error, const char* fallback) {
    return error.empty() ? std::string(fallback) : error;
}
std::string nameTooLong() {
    return "Written file name is too long for allocated buffer";
}
} // namespace message

int32_t fail(dataExchangeLibraryImp& handle, std::string text, int32_t result) {
    handle.appendError(std::move(text));
    return result;
}

} // namespace

extern "C" DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeUploadData(dataExchangeLibraryImp* handle, const char* fileOrFolderName,
                       size_t writtenFileNameSize, char* writtenFileName, uint32_t* usedLocation) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    handle->storedName.clear();
    if (fileOrFolderName == nullptr || *fileOrFolderName == '\0')
        return fail(*handle, message::emptyName(), InvalidArgument);
    if (writtenFileNameSize == 0 && writtenFileName != nullptr)
        return fail(*handle, message::emptyBuffer(), InvalidArgument);
    const UploadPaths paths(handle->extensions.unicodePaths);
    const size_t notUtf8 = UnicodePaths::invalidUtf8Offset(fileOrFolderName);
    if (paths.unicode() && notUtf8 != std::string::npos)
        return fail(*handle, UploadPaths::notUtf8(fileOrFolderName, notUtf8), ReadFailed);
    if (paths.kind(fileOrFolderName) == 0)
        return fail(*handle, message::missing(fileOrFolderName), ReadFailed);

    FileHandler handler;
    handler.useExtensions(handle->extensions);
    // With package removal asked for, the upload's own temporary folder goes when the call
    // returns, whatever the outcome.
    struct RemovePackage {
        const FileHandler& handler;
        bool enabled;
        ~RemovePackage() {
            if (enabled && !handler.temporaryFolder.empty())
                handler.paths().removeTree(handler.temporaryFolder);
        }
    } removePackage{handler, handle->extensions.removePackage};
    if (!handler.configure(handle))
        return fail(*handle,
                    message::orFallback(handler.error, "Unknown error configuring file handler"),
                    HandlerConfigurationFailed);
    // Read as UTF-8 below, a path in the ANSI code page comes out mangled and packing fails for
    // no reason the host could see; verified delivery names the cause and the remedy.
    if (handle->extensions.verifiedDelivery && !paths.unicode() && notUtf8 != std::string::npos)
        return fail(*handle, UploadPaths::needsUnicode("File or folder", fileOrFolderName, notUtf8),
                    DataHandlingFailed);
    QString name;
    uint32_t used = 0;
    const bool delivered = handler.handleData(QString::fromUtf8(fileOrFolderName), name, used);
    handle->storedName = handler.storedName.toStdString();
    if (!delivered)
        return fail(*handle,
                    handler.handlingFailure() + (handler.kept.empty() ? "" : "\n" + handler.kept),
                    DataHandlingFailed);
    // The destination is reported even when the name does not fit: the data was delivered.
    if (usedLocation != nullptr)
        *usedLocation = used;
    if (writtenFileName != nullptr) {
        const std::string text = name.toStdString();
        std::strncpy(writtenFileName, text.c_str(), writtenFileNameSize);
        // Measured in UTF-16 units, as hosts on Windows count characters.
        if (writtenFileNameSize <= static_cast<size_t>(name.size()))
            return fail(*handle, message::nameTooLong(), BufferTooSmall);
    }
    return Success;
}
