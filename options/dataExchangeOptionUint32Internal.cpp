#include "options/dataExchangeOptionUint32Internal.h"

namespace measurement::dataExchange {

dataExchangeOptionUint32Internal::dataExchangeOptionUint32Internal(
    int32_t type, uint32_t access, const std::string& name, const std::string& summary,
    const std::string& description, dataExchangeLibraryImp* owner, uint32_t min, uint32_t max,
    uint32_t defaultValue, Getter getter, Setter setter)
    : dataExchangeOptionInternal(type, access, name, summary, description, owner), min(min),
      max(max), defaultValue(defaultValue), getter(getter), setter(setter) {}

dataExchangeOptionUint32Internal::AccessStatus
dataExchangeOptionUint32Internal::currentValueAsUint32(uint32_t& out) const {
    if (!typeIs(Uint32))
        return wrongType();
    return readCurrent(getter, out, dataExchangeLibraryImp::WriteOnly);
}

dataExchangeOptionUint32Internal::AccessStatus
dataExchangeOptionUint32Internal::defaultValueAsUint32(uint32_t& out) const {
    if (!typeIs(Uint32))
        return wrongType();
    return readStored(defaultValue, hasDefaultValue(), "No default value provided", out);
}

dataExchangeOptionUint32Internal::AccessStatus
dataExchangeOptionUint32Internal::minValueAsUint32(uint32_t& out) const {
    if (!typeIs(Uint32))
        return wrongType();
    return readStored(min, hasMinValue(), "No min value provided", out);
}

dataExchangeOptionUint32Internal::AccessStatus
dataExchangeOptionUint32Internal::maxValueAsUint32(uint32_t& out) const {
    if (!typeIs(Uint32))
        return wrongType();
    return readStored(max, hasMaxValue(), "No max value provided", out);
}

dataExchangeOptionUint32Internal::AccessStatus
dataExchangeOptionUint32Internal::setValueFromUint32(const uint32_t& value, bool& cropped) {
    if (!typeIs(Uint32))
        return wrongType();
    return writeClamped(setter, value, min, max, cropped, dataExchangeLibraryImp::ReadOnly,
                        "Value is read-only");
}

} // namespace measurement::dataExchange
