#pragma once

#include "options/dataExchangeOptionInternal.h"

namespace measurement::dataExchange {

// A Uint64 option. An absent bound or default is encoded by a marker value in the bound itself.
// Unlike the other classes it answers a missing getter with ReadOnly and a missing setter with
// WriteOnly; hosts have seen these codes for years, so they stay swapped.
class dataExchangeOptionUint64Internal : public dataExchangeOptionInternal {
public:
    using Getter = uint64_t (*)(dataExchangeLibraryImp* owner);
    using Setter = AccessStatus (*)(dataExchangeLibraryImp* owner, const uint64_t& value,
                                    bool& cropped);

    static constexpr uint64_t absentMin = 0u;
    static constexpr uint64_t absentMax = 18446744073709551615u;
    static constexpr uint64_t absentDefault = 18446744073709551615u;

    dataExchangeOptionUint64Internal(int32_t type, uint32_t access, const std::string& name,
                                     const std::string& summary, const std::string& description,
                                     dataExchangeLibraryImp* owner, uint64_t min, uint64_t max,
                                     uint64_t defaultValue, Getter getter, Setter setter);
    ~dataExchangeOptionUint64Internal() override = default;

    AccessStatus currentValueAsUint64(uint64_t& out) const override;
    AccessStatus defaultValueAsUint64(uint64_t& out) const override;
    AccessStatus minValueAsUint64(uint64_t& out) const override;
    AccessStatus maxValueAsUint64(uint64_t& out) const override;
    AccessStatus setValueFromUint64(const uint64_t& value, bool& cropped) override;
    bool hasMinValue() const override { return min != absentMin; }
    bool hasMaxValue() const override { return max != absentMax; }
    bool hasDefaultValue() const override { return defaultValue != absentDefault; }

private:
    uint64_t min;
    uint64_t max;
    uint64_t defaultValue;
    Getter getter;
    Setter setter;
};

} // namespace measurement::dataExchange
