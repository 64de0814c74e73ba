// The exports that list, read and write options, and the lookup and generic read and write
// paths behind them.
#include "api/dataExchangeLibraryImp.h"
#include "options/OptionCatalogue.h"
#include "options/dataExchangeOptionInternal.h"

#include <cstring>
#include <string>

using measurement::dataExchange::buildOptionCatalogue;
using measurement::dataExchange::dataExchangeOptionInternal;
using measurement::dataExchange::optionTypeName;

namespace {

constexpr uint32_t readable = 1;
constexpr uint32_t writable = 2;

// Every message of the option exports.
namespace message {
std::string quoted(const std::string& name) {
    return "'" + name + "'";
}
std::string emptyName() {
    return "optName parameter is nullptr";
}
std::string unknown(const std::string& name) {
    return "Option " + quoted(name) + " does not exist";
}
std::string wrongType(int32_t type, const std::string& name) {
    return "Invalid option type " + optionTypeName(type) + " for option " + quoted(name);
}
std::string option(const std::string& name, const char* what) {
    return "Option " + quoted(name) + " " + what;
}
std::string cannotBeRead(const std::string& name) {
    return "Current value of " + quoted(name) + " cannot be read";
}
std::string bufferTooSmall() {
    return "Received option value was too big for the allocated option buffer";
}
} // namespace message

struct BoundRead {
    const char* noGetter;
    const char* noValue;
    bool (dataExchangeOptionInternal::*present)() const;
};

int32_t checkType(dataExchangeLibraryImp& handle, const dataExchangeOptionInternal& option,
                  int32_t type) {
    if (option.type == type)
        return Success;
    handle.appendError(message::wrongType(type, option.name));
    return InvalidOption;
}

// Lookup and type check shared by every typed export.
int32_t findTyped(dataExchangeLibraryImp& handle, const char* name, int32_t type,
                  dataExchangeOptionInternal*& option) {
    // A null name is treated as the empty one rather than crashing the host.
    const int32_t found = handle.lookupOption(name != nullptr ? name : "", option);
    if (found != Success)
        return found;
    return checkType(handle, *option, type);
}

template <typename T>
int32_t getNumber(dataExchangeLibraryImp* handle, const char* name, uint32_t which, T* value,
                  int32_t type, dataExchangeLibraryImp::OptionGetter<T> current,
                  dataExchangeLibraryImp::OptionGetter<T> minimum,
                  dataExchangeLibraryImp::OptionGetter<T> maximum,
                  dataExchangeLibraryImp::OptionGetter<T> defaultValue) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    dataExchangeOptionInternal* option = nullptr;
    const int32_t found = findTyped(*handle, name, type, option);
    if (found != Success)
        return found;
    return handle->readOption(*option, which, current, minimum, maximum, defaultValue, value);
}

template <typename T>
int32_t setValue(dataExchangeLibraryImp* handle, const char* name, const T& value, int32_t type,
                 dataExchangeLibraryImp::OptionSetter<T> setter) {
    dataExchangeOptionInternal* option = nullptr;
    const int32_t found = findTyped(*handle, name, type, option);
    if (found != Success)
        return found;
    return handle->writeOption(*option, setter, value);
}

template <typename T>
int32_t setNumber(dataExchangeLibraryImp* handle, const char* name, T value, int32_t type,
                  dataExchangeLibraryImp::OptionSetter<T> setter) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    return setValue(handle, name, value, type, setter);
}

} // namespace

int32_t dataExchangeLibraryImp::lookupOption(const std::string& name,
                                             dataExchangeOptionInternal*& option) {
    if (name.empty()) {
        appendError(message::emptyName());
        return InvalidArgument;
    }
    for (const auto& entry : buildOptionCatalogue(*this)) {
        if (entry.first == name) {
            option = entry.second;
            return Success;
        }
    }
    appendError(message::unknown(name));
    return InvalidOption;
}

template <typename T>
int32_t dataExchangeLibraryImp::readOption(dataExchangeOptionInternal& option, uint32_t which,
                                           OptionGetter<T> current, OptionGetter<T> minimum,
                                           OptionGetter<T> maximum, OptionGetter<T> defaultValue,
                                           T* value) {
    const std::string name = option.name;
    if ((option.access & readable) == 0) {
        appendError(message::option(name, "is write-only"));
        return NotAvailable;
    }
    OptionGetter<T> getter = nullptr;
    if (which == Current) {
        if (current == nullptr) {
            appendError(message::option(name, "has no getter"));
            return NotAvailable;
        }
        getter = current;
    } else if (which == Minimum || which == Maximum || which == Default) {
        static const BoundRead bounds[] = {
            {"has no getter for min value", "has no min value",
             &dataExchangeOptionInternal::hasMinValue},
            {"has no getter for max value", "has no max value",
             &dataExchangeOptionInternal::hasMaxValue},
            {"has no getter for default value", "has no default value",
             &dataExchangeOptionInternal::hasDefaultValue},
        };
        const BoundRead& bound = bounds[which - Minimum];
        getter = which == Minimum ? minimum : which == Maximum ? maximum : defaultValue;
        if (getter == nullptr) {
            appendError(message::option(name, bound.noGetter));
            return NotAvailable;
        }
        if (!(option.*bound.present)()) {
            appendError(message::option(name, bound.noValue));
            return NotAvailable;
        }
    } else {
        // Unknown selectors read nothing and report nothing; hosts rely on it staying so.
        return Success;
    }
    T read{};
    if ((option.*getter)(read) == Ok) {
        if (value != nullptr)
            *value = read;
        return Success;
    }
    const std::string pending = option.takePendingMessage();
    if (!pending.empty())
        appendError(pending);
    // The same line for all four selectors: hosts match on it.
    appendError(message::cannotBeRead(name));
    return ReadFailed;
}

template <typename T>
int32_t dataExchangeLibraryImp::writeOption(dataExchangeOptionInternal& option,
                                            OptionSetter<T> setter, const T& value) {
    const std::string name = option.name;
    if ((option.access & writable) == 0) {
        appendError(message::option(name, "is read-only"));
        return NotAvailable;
    }
    bool cropped = false;
    if ((option.*setter)(value, cropped) != Ok) {
        const std::string pending = option.takePendingMessage();
        if (!pending.empty())
            appendError(pending);
        appendError(message::option(name, "cannot be written"));
        return WriteFailed;
    }
    if (cropped) {
        appendError(message::option(name, "was cropped"));
        return ValueCropped;
    }
    return Success;
}

using Option = dataExchangeOptionInternal;

extern "C" {

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeEnumerateOptions(
    dataExchangeLibraryImp* handle, dataExchangeOptionCallback callback, void* context) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    if (callback == nullptr)
        return Success;
    for (const auto& entry : buildOptionCatalogue(*handle)) {
        const Option& option = *entry.second;
        callback(option.name, option.summary, option.description, option.access,
                 static_cast<uint32_t>(option.type), context);
    }
    return Success;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetInt32Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, int32_t* value) {
    return getNumber<int32_t>(handle, name, which, value, Int32, &Option::currentValueAsInt32,
                              &Option::minValueAsInt32, &Option::maxValueAsInt32,
                              &Option::defaultValueAsInt32);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetUint32Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, uint32_t* value) {
    return getNumber<uint32_t>(handle, name, which, value, Uint32, &Option::currentValueAsUint32,
                               &Option::minValueAsUint32, &Option::maxValueAsUint32,
                               &Option::defaultValueAsUint32);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL dataExchangeGetUint64Option(
    dataExchangeLibraryImp* handle, const char* name, uint32_t which, uint64_t* value) {
    return getNumber<uint64_t>(handle, name, which, value, Uint64, &Option::currentValueAsUint64,
                               &Option::minValueAsUint64, &Option::maxValueAsUint64,
                               &Option::defaultValueAsUint64);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeGetStringOption(dataExchangeLibraryImp* handle, const char* name, uint32_t which,
                            size_t bufferSize, char* buffer) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    if (buffer == nullptr)
        return InvalidArgument;
    dataExchangeOptionInternal* option = nullptr;
    int32_t result = findTyped(*handle, name, String, option);
    if (result != Success)
        return result;
    std::string text;
    result = handle->readOption<std::string>(*option, which, &Option::currentValueAsString, nullptr,
                                             nullptr, &Option::defaultValueAsString, &text);
    if (result != Success)
        return result;
    if (text.size() >= bufferSize) {
        handle->appendError(message::bufferTooSmall());
        result = BufferTooSmall;
    }
    if (bufferSize != 0)
        std::strncpy(buffer, text.c_str(), bufferSize);
    return result;
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetInt32Option(dataExchangeLibraryImp* handle, const char* name, int32_t value) {
    return setNumber<int32_t>(handle, name, value, Int32, &Option::setValueFromInt32);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUint32Option(dataExchangeLibraryImp* handle, const char* name, uint32_t value) {
    return setNumber<uint32_t>(handle, name, value, Uint32, &Option::setValueFromUint32);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetUint64Option(dataExchangeLibraryImp* handle, const char* name, uint64_t value) {
    return setNumber<uint64_t>(handle, name, value, Uint64, &Option::setValueFromUint64);
}

DATAEXCHANGE_API int32_t DATAEXCHANGE_CALL
dataExchangeSetStringOption(dataExchangeLibraryImp* handle, const char* name, const char* value) {
    if (handle == nullptr)
        return InvalidArgument;
    handle->clearErrors();
    if (value == nullptr)
        return InvalidArgument;
    return setValue<std::string>(handle, name, std::string(value), String,
                                 &Option::setValueFromString);
}

} // extern "C"
