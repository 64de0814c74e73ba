#include "options/dataExchangeOptionUint64Internal.h"

namespace measurement::dataExchange {

dataExchangeOptionUint64Internal::dataExchangeOptionUint64Internal(
    int32_t type, uint32_t access, const std::string& name, const std::string& summary,
    const std::string& description, dataExchangeLibraryImp* owner, uint64_t min, uint64_t max,
    uint64_t defaultValue, Getter getter, Setter setter)
    : dataExchangeOptionInternal(type, access, name, summary, description, owner), min(min),
      max(max), defaultValue(defaultValue), getter(getter), setter(setter) {}

dataExchangeOptionUint64Internal::AccessStatus
dataExchangeOptionUint64Internal::currentValueAsUint64(uint64_t& out) const {
    if (!typeIs(Uint64))
        return wrongType();
    return readCurrent(getter, out, dataExchangeLibraryImp::ReadOnly);
}

dataExchangeOptionUint64Internal::AccessStatus
dataExchangeOptionUint64Internal::defaultValueAsUint64(uint64_t& out) const {
    if (!typeIs(Uint64))
        return wrongType();
    return readStored(defaultValue, hasDefaultValue(), "No default value provided", out);
}

dataExchangeOptionUint64Internal::AccessStatus
dataExchangeOptionUint64Internal::minValueAsUint64(uint64_t& out) const {
    if (!typeIs(Uint64))
        return wrongType();
    return readStored(min, hasMinValue(), "No min value provided", out);
}

dataExchangeOptionUint64Internal::AccessStatus
dataExchangeOptionUint64Internal::maxValueAsUint64(uint64_t& out) const {
    if (!typeIs(Uint64))
        return wrongType();
    return readStored(max, hasMaxValue(), "No max value provided", out);
}

dataExchangeOptionUint64Internal::AccessStatus
dataExchangeOptionUint64Internal::setValueFromUint64(const uint64_t& value, bool& cropped) {
    if (!typeIs(Uint64))
        return wrongType();
    return writeClamped(setter, value, min, max, cropped, dataExchangeLibraryImp::WriteOnly,
                        "Value is read-only");
}

} // namespace measurement::dataExchange
