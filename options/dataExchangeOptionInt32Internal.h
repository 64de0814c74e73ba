#pragma once

#include "options/dataExchangeOptionInternal.h"

namespace measurement::dataExchange {

// A Int32 option. An absent bound or default is encoded by a marker value in the bound itself.
class dataExchangeOptionInt32Internal : public dataExchangeOptionInternal {
public:
    using Getter = int32_t (*)(dataExchangeLibraryImp* owner);
    using Setter = AccessStatus (*)(dataExchangeLibraryImp* owner, const int32_t& value,
                                    bool& cropped);

    static constexpr int32_t absentMin = 2147483647;
    static constexpr int32_t absentMax = -2147483647;
    static constexpr int32_t absentDefault = -2147483647;

    dataExchangeOptionInt32Internal(int32_t type, uint32_t access, const std::string& name,
                                    const std::string& summary, const std::string& description,
                                    dataExchangeLibraryImp* owner, int32_t min, int32_t max,
                                    int32_t defaultValue, Getter getter, Setter setter);
    ~dataExchangeOptionInt32Internal() override = default;

    AccessStatus currentValueAsInt32(int32_t& out) const override;
    AccessStatus defaultValueAsInt32(int32_t& out) const override;
    AccessStatus minValueAsInt32(int32_t& out) const override;
    AccessStatus maxValueAsInt32(int32_t& out) const override;
    AccessStatus setValueFromInt32(const int32_t& value, bool& cropped) override;
    bool hasMinValue() const override { return min != absentMin; }
    bool hasMaxValue() const override { return max != absentMax; }
    bool hasDefaultValue() const override { return defaultValue != absentDefault; }

private:
    int32_t min;
    int32_t max;
    int32_t defaultValue;
    Getter getter;
    Setter setter;
};

} // namespace measurement::dataExchange
