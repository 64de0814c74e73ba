// The option exports driven by call sequences decoded from the input. Each call takes six bytes:
// the export, the mode (get or set, a null pointer or not), the name (the seven, near misses,
// empty, null), the selector, the buffer size and the length of the value or text that follows.
// Output buffers are heap blocks of exactly the size the call is told (0 among them), so the
// sanitizers catch a write past them. The checks are the exports' rules; a broken one aborts, and
// libFuzzer keeps the input and shows the check's line.
#include "dataExchange.h"

#include <QCoreApplication>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#define check(rule) ((rule) ? void() : std::abort())

namespace {

const char* const names[] = {
    "Data type", "Device type", "Email address", "Location", "Report", "Serial number", "User",
    "",          "data type",   "Location ",     "Report\n", "Serial", nullptr};
const uint32_t selectors[] = {Current, Minimum, Maximum, Default, 4, 0xffffffffu};
const int32_t codes[] = {0, 1, 10, 11, 20, 21, 30, 40, -20, -21}; // those of dataExchange.h

struct Input {
    const uint8_t* data;
    size_t left;
    uint8_t byte() { return left == 0 ? 0 : (--left, *data++); }
};

// Decodes one call and makes it; returns its result.
int32_t call(dataExchangeLibraryImp*& handle, Input& in) {
    const uint8_t op = in.byte() % 7, mode = in.byte(); // mode bit 0: get, bit 1: a null pointer
    const char* name = names[in.byte() % std::size(names)];
    const uint32_t which = selectors[in.byte() % std::size(selectors)];
    const size_t size = in.byte(), length = in.byte(); // of the buffer; of the bytes that follow
    std::string bytes;                                 // the value or text
    while (bytes.size() < length)
        bytes += static_cast<char>(in.byte());
    const std::unique_ptr<char[]> buffer(new char[size]); // exactly `size` bytes, 0 among them
    std::memset(buffer.get(), '#', size);
    // A number is a get, or a set that reads back as given (as something else when cropped).
    const auto number = [&](auto setter, auto getter, auto read) {
        auto value = read;
        std::memcpy(&value, bytes.data(), std::min(sizeof value, length));
        if (mode & 1)
            return getter(handle, name, which, mode & 2 ? nullptr : &read);
        const int32_t result = setter(handle, name, value);
        check((result != Success && result != ValueCropped) ||
              (getter(handle, name, Current, &read) == Success &&
               (read == value) == (result == Success)));
        return result;
    };
    int32_t result = Success;
    switch (op) {
    case 0:
        return number(dataExchangeSetInt32Option, dataExchangeGetInt32Option, int32_t());
    case 1:
        return number(dataExchangeSetUint32Option, dataExchangeGetUint32Option, uint32_t());
    case 2:
        return number(dataExchangeSetUint64Option, dataExchangeGetUint64Option, uint64_t());
    case 3: { // text up to the first zero byte, or null
        const char* text = mode & 2 ? nullptr : bytes.c_str();
        char read[256];
        result = dataExchangeSetStringOption(handle, name, text);
        check(result != Success ||
              (dataExchangeGetStringOption(handle, name, Current, sizeof read, read) == Success &&
               std::strcmp(read, text) == 0));
        return result;
    }
    case 4: // a string of the option that fits is terminated
        result = dataExchangeGetStringOption(handle, name, which, size,
                                             mode & 2 ? nullptr : buffer.get());
        check(result != Success || (!(mode & 2) && std::memchr(buffer.get(), 0, size)));
        return result;
    case 5: // the messages are gone either way: the next call leaves the buffer untouched
        result = dataExchangeGetLastErrors(handle, size, buffer.get());
        std::memset(buffer.get(), '#', size);
        check((result == Success || result == BufferTooSmall) &&
              dataExchangeGetLastErrors(handle, size, buffer.get()) == Success &&
              std::count(buffer.get(), buffer.get() + size, '#') == static_cast<long>(size));
        return result;
    default:
        check(dataExchangeClose(&handle) == Success && handle == nullptr);
        handle = dataExchangeInit(nullptr, 0, nullptr);
        check(handle != nullptr);
        return Success;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    new QCoreApplication(*argc, *argv); // the host's: the handles borrow it, not make one each
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in{data, size};
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    check(handle != nullptr);
    for (int calls = 0; calls < 256 && in.left != 0; ++calls)
        check(std::count(std::begin(codes), std::end(codes), call(handle, in)) == 1);
    check(dataExchangeClose(&handle) == Success);
    return 0;
}
