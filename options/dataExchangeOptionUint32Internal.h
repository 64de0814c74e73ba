#pragma once

#include "options/dataExchangeOptionInternal.h"

namespace measurement::dataExchange {

// A Uint32 option. An absent bound or default is encoded by a marker value in the bound itself.
class dataExchangeOptionUint32Internal : public dataExchangeOptionInternal {
public:
    using Getter = uint32_t (*)(dataExchangeLibraryImp* owner);
    using Setter = AccessStatus (*)(dataExchangeLibraryImp* owner, const uint32_t& value,
                                    bool& cropped);

    static constexpr uint32_t absentMin = 0u;
    static constexpr uint32_t absentMax = 4294967295u;
    static constexpr uint32_t absentDefault = 4294967295u;

    dataExchangeOptionUint32Internal(int32_t type, uint32_t access, const std::string& name,
                                     const std::string& summary, const std::string& description,
                                     dataExchangeLibraryImp* owner, uint32_t min, uint32_t max,
                                     uint32_t defaultValue, Getter getter, Setter setter);
    ~dataExchangeOptionUint32Internal() override = default;

    AccessStatus currentValueAsUint32(uint32_t& out) const override;
    AccessStatus defaultValueAsUint32(uint32_t& out) const override;
    AccessStatus minValueAsUint32(uint32_t& out) const override;
    AccessStatus maxValueAsUint32(uint32_t& out) const override;
    AccessStatus setValueFromUint32(const uint32_t& value, bool& cropped) override;
    bool hasMinValue() const override { return min != absentMin; }
    bool hasMaxValue() const override { return max != absentMax; }
    bool hasDefaultValue() const override { return defaultValue != absentDefault; }

private:
    uint32_t min;
    uint32_t max;
    uint32_t defaultValue;
    Getter getter;
    Setter setter;
};

} // namespace measurement::dataExchange
