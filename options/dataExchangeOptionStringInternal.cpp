#include "options/dataExchangeOptionStringInternal.h"

#include <utility>

namespace measurement::dataExchange {

dataExchangeOptionStringInternal::dataExchangeOptionStringInternal(
    int32_t type, uint32_t access, const std::string& name, const std::string& summary,
    const std::string& description, dataExchangeLibraryImp* owner, std::string defaultValue,
    Getter getter, Setter setter)
    : dataExchangeOptionInternal(type, access, name, summary, description, owner),
      defaultValue(std::move(defaultValue)), getter(getter), setter(setter) {}

dataExchangeOptionStringInternal::AccessStatus
dataExchangeOptionStringInternal::currentValueAsString(std::string& out) const {
    if (!typeIs(String))
        return wrongType();
    return readCurrent(getter, out, dataExchangeLibraryImp::WriteOnly);
}

dataExchangeOptionStringInternal::AccessStatus
dataExchangeOptionStringInternal::defaultValueAsString(std::string& out) const {
    if (!typeIs(String))
        return wrongType();
    return readStored(defaultValue, hasDefaultValue(), "No default value provided", out);
}

// Texts are stored as given: nothing is clipped, and the caller's cropped flag is left alone.
dataExchangeOptionStringInternal::AccessStatus
dataExchangeOptionStringInternal::setValueFromString(const std::string& value, bool& cropped) {
    if (!typeIs(String))
        return wrongType();
    if (setter == nullptr)
        return fail(dataExchangeLibraryImp::ReadOnly, "Value is read-only");
    return setter(owner, value, cropped);
}

} // namespace measurement::dataExchange
