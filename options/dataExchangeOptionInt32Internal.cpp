#include "options/dataExchangeOptionInt32Internal.h"

namespace measurement::dataExchange {

dataExchangeOptionInt32Internal::dataExchangeOptionInt32Internal(
    int32_t type, uint32_t access, const std::string& name, const std::string& summary,
    const std::string& description, dataExchangeLibraryImp* owner, int32_t min, int32_t max,
    int32_t defaultValue, Getter getter, Setter setter)
    : dataExchangeOptionInternal(type, access, name, summary, description, owner), min(min),
      max(max), defaultValue(defaultValue), getter(getter), setter(setter) {}

dataExchangeOptionInt32Internal::AccessStatus
dataExchangeOptionInt32Internal::currentValueAsInt32(int32_t& out) const {
    if (!typeIs(Int32))
        return wrongType();
    return readCurrent(getter, out, dataExchangeLibraryImp::WriteOnly);
}

dataExchangeOptionInt32Internal::AccessStatus
dataExchangeOptionInt32Internal::defaultValueAsInt32(int32_t& out) const {
    if (!typeIs(Int32))
        return wrongType();
    return readStored(defaultValue, hasDefaultValue(), "No default value provided", out);
}

dataExchangeOptionInt32Internal::AccessStatus
dataExchangeOptionInt32Internal::minValueAsInt32(int32_t& out) const {
    if (!typeIs(Int32))
        return wrongType();
    return readStored(min, hasMinValue(), "No min value provided", out);
}

dataExchangeOptionInt32Internal::AccessStatus
dataExchangeOptionInt32Internal::maxValueAsInt32(int32_t& out) const {
    if (!typeIs(Int32))
        return wrongType();
    return readStored(max, hasMaxValue(), "No max value provided", out);
}

dataExchangeOptionInt32Internal::AccessStatus
dataExchangeOptionInt32Internal::setValueFromInt32(const int32_t& value, bool& cropped) {
    if (!typeIs(Int32))
        return wrongType();
    return writeClamped(setter, value, min, max, cropped, dataExchangeLibraryImp::ReadOnly,
                        "Value has no setter");
}

} // namespace measurement::dataExchange
