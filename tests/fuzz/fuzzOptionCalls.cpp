// The option exports driven by call sequences decoded from the input: the call, the name (the
// seven, near misses, empty, null), the value selector, the value and the buffer size (0 and 1
// among them) all come from the bytes. Output buffers are heap blocks of exactly the size the
// call is told, so a write past them is caught. Beyond what the sanitizers catch, a few rules of
// the exports are checked; a broken rule aborts.
#include "dataExchange.h"

#include <QCoreApplication>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <string>

namespace {

const char* const names[] = {
    "Data type", "Device type", "Email address", "Location", "Report", "Serial number", "User",
    "",          "data type",   "Location ",     "Report\n", "Serial", nullptr};
const char* const paths[] = {"", nullptr, "/nonexistent/dataExchange/cal7"};

// A broken rule names itself before the abort, which libFuzzer turns into a crash file.
#define check(rule)                                                                                \
    do {                                                                                           \
        if (!(rule)) {                                                                             \
            std::fprintf(stderr, "broken rule, line %d: %s\n", __LINE__, #rule);                   \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

class Input {
public:
    Input(const uint8_t* data, size_t size) : data(data), left(size) {}
    bool empty() const { return left == 0; }
    uint8_t byte() {
        if (left == 0)
            return 0;
        --left;
        return *data++;
    }
    template <typename T> T number() {
        uint64_t value = 0;
        for (size_t n = 0; n < sizeof(T); ++n)
            value = value << 8 | byte();
        return static_cast<T>(value);
    }
    const char* name() { return names[byte() % std::size(names)]; }
    // Mostly the four selectors, now and then one that selects nothing.
    uint32_t which() {
        const uint8_t b = byte();
        return b < 240 ? b % 4 : b == 255 ? 0xffffffffu : b;
    }
    size_t size() {
        static const size_t sizes[] = {0, 1, 2, 5, 37, 41, 64, 4096};
        const uint8_t b = byte();
        return b < 128 ? sizes[b % std::size(sizes)] : b - 128u;
    }
    // Up to 255 bytes of the input, as a C string (it ends at the first zero byte).
    std::string text() {
        const size_t length = std::min<size_t>(byte(), left);
        std::string value(reinterpret_cast<const char*>(data), length);
        data += length;
        left -= length;
        return value.c_str();
    }

private:
    const uint8_t* data;
    size_t left;
};

// A heap block of exactly size bytes, even for 0.
using Buffer = std::unique_ptr<char, decltype(&std::free)>;
Buffer allocate(size_t size) {
    return Buffer(static_cast<char*>(std::malloc(size)), &std::free);
}

void DATAEXCHANGE_CALL countOption(const char*, const char*, const char*, uint32_t, uint32_t,
                                   void* context) {
    ++*static_cast<int*>(context);
}

template <typename T, typename Set, typename Get>
void setNumber(dataExchangeLibraryImp* handle, Input& in, Set set, Get get) {
    const char* name = in.name();
    const T value = in.number<T>();
    const int32_t result = set(handle, name, value);
    T read{};
    if (result == Success)
        check(get(handle, name, Current, &read) == Success && read == value);
    if (result == ValueCropped) {
        // A bound that cannot be read counts as none ("Report" hides its minimum of 0).
        T minimum = std::numeric_limits<T>::min(), maximum = std::numeric_limits<T>::max();
        get(handle, name, Minimum, &minimum);
        get(handle, name, Maximum, &maximum);
        check(get(handle, name, Current, &read) == Success);
        check(minimum <= read && read <= maximum && read != value);
    }
}

void call(dataExchangeLibraryImp*& handle, Input& in) {
    switch (in.byte() % 13) {
    case 0:
        setNumber<int32_t>(handle, in, dataExchangeSetInt32Option, dataExchangeGetInt32Option);
        break;
    case 1:
        setNumber<uint32_t>(handle, in, dataExchangeSetUint32Option, dataExchangeGetUint32Option);
        break;
    case 2:
        setNumber<uint64_t>(handle, in, dataExchangeSetUint64Option, dataExchangeGetUint64Option);
        break;
    case 3: {
        const char* name = in.name();
        const std::string value = in.text();
        const bool null = in.byte() & 1;
        if (dataExchangeSetStringOption(handle, name, null ? nullptr : value.c_str()) == Success) {
            char read[256];
            check(dataExchangeGetStringOption(handle, name, Current, sizeof read, read) ==
                      Success &&
                  value == read);
        }
        break;
    }
    case 4: {
        int32_t value = 0;
        const char* name = in.name();
        dataExchangeGetInt32Option(handle, name, in.which(), in.byte() & 1 ? &value : nullptr);
        break;
    }
    case 5: {
        uint32_t value = 0;
        const char* name = in.name();
        dataExchangeGetUint32Option(handle, name, in.which(), in.byte() & 1 ? &value : nullptr);
        break;
    }
    case 6: {
        uint64_t value = 0;
        const char* name = in.name();
        dataExchangeGetUint64Option(handle, name, in.which(), in.byte() & 1 ? &value : nullptr);
        break;
    }
    case 7: {
        const char* name = in.name();
        const uint32_t which = in.which();
        const size_t size = in.size();
        const Buffer buffer = allocate(size);
        const int32_t result = dataExchangeGetStringOption(handle, name, which, size,
                                                           in.byte() & 1 ? buffer.get() : nullptr);
        if (result == Success && size != 0)
            check(std::memchr(buffer.get(), 0, size) != nullptr);
        break;
    }
    case 8: {
        // A null buffer with a size is the caller's error here, so the buffer is always real.
        const size_t size = in.size();
        const Buffer buffer = allocate(size);
        const int32_t result = dataExchangeGetLastErrors(handle, size, buffer.get());
        check(result == Success || result == BufferTooSmall);
        if (size != 0)
            buffer.get()[0] = '#';
        // The messages are gone either way: the next call writes nothing.
        check(dataExchangeGetLastErrors(handle, size, buffer.get()) == Success);
        check(size == 0 || buffer.get()[0] == '#');
        break;
    }
    case 9: {
        int count = 0;
        const bool withCallback = in.byte() & 1;
        check(dataExchangeEnumerateOptions(handle, withCallback ? countOption : nullptr, &count) ==
              Success);
        check(count == (withCallback ? 7 : 0));
        break;
    }
    case 10: {
        const bool sha1 = in.byte() & 1;
        const size_t size = in.size();
        const Buffer buffer = allocate(size);
        char* target = in.byte() & 1 ? buffer.get() : nullptr;
        const int32_t result =
            sha1 ? dataExchangeSha1(size, target) : dataExchangeVersion(size, target);
        if (result == Success)
            check(target != nullptr && std::memchr(target, 0, size) != nullptr);
        break;
    }
    case 11: {
        // Argument checks only: none of these paths exists, so nothing is packed or sent.
        const char* path = paths[in.byte() % std::size(paths)];
        const size_t size = in.size();
        const Buffer buffer = allocate(size);
        uint32_t used = 0;
        check(dataExchangeUploadData(handle, path, size, in.byte() & 1 ? buffer.get() : nullptr,
                                     &used) != Success);
        break;
    }
    default:
        check(dataExchangeClose(&handle) == Success && handle == nullptr);
        handle = dataExchangeInit(nullptr, in.size(), allocate(0).get());
        check(handle != nullptr);
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // The host's application object: the handles borrow it instead of making one each.
    new QCoreApplication(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    dataExchangeLibraryImp* handle = dataExchangeInit(nullptr, 0, nullptr);
    check(handle != nullptr);
    for (int calls = 0; calls < 256 && !in.empty(); ++calls)
        call(handle, in);
    check(dataExchangeClose(&handle) == Success);
    return 0;
}
