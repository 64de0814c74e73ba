// The option exports driven by call sequences decoded from the input. Each call takes six bytes:
// the export, the mode (bit 0: get, bit 1: a null pointer), the name (the seven, near misses,
// empty, null), the selector, the buffer size and the length of the value or text that follows.
// Output buffers are heap blocks of exactly the size the call is told, so the sanitizers catch a
// write past them. Every call must give one of the header's codes; a buffer reported filled must
// hold a terminator. A broken rule aborts and libFuzzer keeps the input.
#include "dataExchange.h"

#include <QCoreApplication>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define check(rule) ((rule) ? void() : std::abort())

namespace {

const char* const names[] = {
    "Data type", "Device type", "Email address", "Location", "Report", "Serial number", "User",
    "",          "data type",   "Location ",     "Report\n", "Serial", nullptr};
const uint32_t selectors[] = {Current, Minimum, Maximum, Default, 4, 0xffffffffu};
const int32_t codes[] = {0, 1, 10, 11, 20, 21, 30, 40, -20, -21}; // those of dataExchange.h

int32_t call(dataExchangeLibraryImp*& handle, const uint8_t*& data, const uint8_t* end) {
    const auto byte = [&] { return data == end ? uint8_t(0) : *data++; };
    const uint8_t op = byte() % 6, mode = byte();
    const char* name = names[byte() % std::size(names)];
    const uint32_t which = selectors[byte() % std::size(selectors)];
    const size_t size = byte(), length = byte();
    std::string bytes(length, '\0'); // the value or text
    for (char& c : bytes)
        c = char(byte());
    std::vector<char> buffer(size, '#'); // exactly `size` bytes: 0 among them
    char* out = mode & 2 ? nullptr : buffer.data();
    uint64_t value = 0; // little-endian: the narrower types read its first bytes
    std::memcpy(&value, bytes.data(), std::min(sizeof value, length));
    const bool get = mode & 1;
    void* const number = mode & 2 ? nullptr : &value;
    switch (op) {
    case 0:
        return get ? dataExchangeGetInt32Option(handle, name, which, static_cast<int32_t*>(number))
                   : dataExchangeSetInt32Option(handle, name, int32_t(value));
    case 1:
        return get ? dataExchangeGetUint32Option(handle, name, which,
                                                 static_cast<uint32_t*>(number))
                   : dataExchangeSetUint32Option(handle, name, uint32_t(value));
    case 2:
        return get ? dataExchangeGetUint64Option(handle, name, which,
                                                 static_cast<uint64_t*>(number))
                   : dataExchangeSetUint64Option(handle, name, value);
    case 3:
        if (!get)
            return dataExchangeSetStringOption(handle, name, mode & 2 ? nullptr : bytes.c_str());
        value = dataExchangeGetStringOption(handle, name, which, size, out);
        check(value != Success || (out && std::memchr(out, 0, size)));
        return int32_t(value);
    case 4:
        return dataExchangeGetLastErrors(handle, size, out);
    default:
        check(dataExchangeClose(&handle) == Success && handle == nullptr);
        handle = dataExchangeInit(nullptr, 0, nullptr);
        return handle ? Success : -1;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    new QCoreApplication(*argc, *argv); // the host's: the handles borrow it, not make one each
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    const uint8_t* const end = data + size;
    for (int calls = 0; calls < 256 && data != end; ++calls)
        check(std::count(std::begin(codes), std::end(codes), call(handle, data, end)) == 1);
    check(dataExchangeClose(&handle) == Success);
    return 0;
}
