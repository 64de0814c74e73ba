// Bad arguments of the upload export and of the extension exports: the exact result and message,
// before anything is packed. It needs no folder of its own, so it runs under Wine as well.
#include "dataExchangeExt.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string errors(dataExchangeLibraryImp* handle) {
    char text[256] = "";
    dataExchangeGetLastErrors(handle, sizeof text, text);
    return text;
}

} // namespace

TEST(UploadArguments, RefusedWithResultAndMessage) {
    EXPECT_EQ(dataExchangeSetProgressCallback(nullptr, nullptr, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeSetStallTimeout(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeSetRemovePackage(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeSetUseConfiguredProxy(nullptr, 1), InvalidArgument);
    EXPECT_EQ(dataExchangeGetStoredName(nullptr, 0, nullptr), InvalidArgument);
    char buffer[8];
    uint32_t used = 0;
    EXPECT_EQ(dataExchangeUploadData(nullptr, "x", 8, buffer, &used), InvalidArgument);
    const char* const folder = DX_SOURCE_DIR "/tests/data"; // any folder that exists
    struct Case {
        int32_t dataType, device; // -1: left unset
        const char* path;
        size_t size;
        char* buffer;
        int32_t result;
        const char* errors;
    } cases[] = {
        {0, 0, "", 0, buffer, 1, "Empty file or folder name provided\n"},
        {0, 0, nullptr, 8, buffer, 1, "Empty file or folder name provided\n"},
        {0, 0, "C:/nothing", 0, buffer, 1, "Empty writtenFileName string provided\n"},
        {0, 0, "C:/nothing", 0, nullptr, 10, "File or folder C:/nothing does not exist\n"},
        {-1, 0, folder, 8, buffer, 30, "Unhandled value for 'Data type'\n\n"},
        {0, -1, folder, 8, buffer, 30, "Unhandled value for 'Device type'\n\n"},
    };
    for (const Case& c : cases) {
        dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
        if (c.dataType >= 0)
            dataExchangeSetInt32Option(handle, "Data type", c.dataType);
        if (c.device >= 0)
            dataExchangeSetInt32Option(handle, "Device type", c.device);
        EXPECT_EQ(dataExchangeUploadData(handle, c.path, c.size, c.buffer, &used), c.result);
        EXPECT_EQ(errors(handle), c.errors);
        dataExchangeClose(&handle);
    }
}

// The switches take 0 or 1 and refuse more; packing threads go from 0 (one per core) to 32 and
// retries up to 20, more are cropped; each with a message. The stored name is "" until an upload
// got an answer.
TEST(UploadArguments, BoundedSettingsAndStoredName) {
    using Set = int32_t(DATAEXCHANGE_CALL*)(dataExchangeLibraryImp*, uint32_t);
    const struct {
        Set set;
        uint32_t largest;
        int32_t beyond;
        const char* message;
    } settings[] = {
        {dataExchangeSetVerifiedDelivery, 1, InvalidArgument,
         "Verified delivery is 0 (off) or 1 (on), not 2\n"},
        {dataExchangeSetUnicodePaths, 1, InvalidArgument,
         "Unicode paths are 0 (off) or 1 (on), not 2\n"},
        {dataExchangeSetPackingThreads, 32, ValueCropped,
         "Packing threads are at most 32; 33 was cropped\n"},
        {[](dataExchangeLibraryImp* h, uint32_t n) { return dataExchangeSetRetries(h, n, 0); }, 20,
         ValueCropped, "Retries are at most 20; 21 was cropped\n"},
        {[](dataExchangeLibraryImp* h, uint32_t n) { return dataExchangeSetCompression(h, n, 0); },
         9, ValueCropped, "Compression level is at most 9; 10 was cropped\n"},
        {[](dataExchangeLibraryImp* h, uint32_t n) { return dataExchangeSetCompression(h, 1, n); },
         1, InvalidArgument, "Storing what does not shrink is 0 (off) or 1 (on), not 2\n"},
    };
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    for (const auto& s : settings) {
        EXPECT_EQ(s.set(nullptr, 1), InvalidArgument);
        EXPECT_EQ(s.set(handle, 0), Success);
        EXPECT_EQ(s.set(handle, s.largest), Success);
        EXPECT_EQ(s.set(handle, s.largest + 1), s.beyond);
        EXPECT_EQ(errors(handle), s.message);
    }
    char text[64];
    EXPECT_EQ(dataExchangeGetStoredName(handle, 8, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeGetStoredName(handle, sizeof text, text), Success);
    EXPECT_STREQ(text, "");
    dataExchangeClose(&handle);
}

// The spool's exports want a handle, and a folder to work on.
TEST(UploadArguments, SpoolWithoutFolder) {
    uint32_t delivered = 9, remaining = 9;
    char list[8] = "#";
    EXPECT_EQ(dataExchangeSetSpoolFolder(nullptr, "x"), InvalidArgument);
    EXPECT_EQ(dataExchangeSendSpooled(nullptr, &delivered, &remaining), InvalidArgument);
    EXPECT_EQ(dataExchangeListSpooled(nullptr, sizeof list, list), InvalidArgument);
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    EXPECT_EQ(dataExchangeListSpooled(handle, 8, nullptr), InvalidArgument);
    EXPECT_EQ(dataExchangeSetSpoolFolder(handle, "x"), Success);
    EXPECT_EQ(dataExchangeSetSpoolFolder(handle, nullptr), Success); // no spool again
    EXPECT_EQ(dataExchangeSendSpooled(handle, &delivered, &remaining), InvalidArgument);
    EXPECT_EQ(errors(handle), "No spool folder set\n");
    EXPECT_EQ(delivered + remaining, 0u);
    EXPECT_EQ(dataExchangeListSpooled(handle, sizeof list, list), InvalidArgument);
    EXPECT_EQ(errors(handle), "No spool folder set\n");
    dataExchangeClose(&handle);
}
