#pragma once

#include "options/dataExchangeOptionInternal.h"

namespace measurement::dataExchange {

// A text option: no bounds; an empty default means "no default".
class dataExchangeOptionStringInternal : public dataExchangeOptionInternal {
public:
    using Getter = std::string (*)(dataExchangeLibraryImp* owner);
    using Setter = AccessStatus (*)(dataExchangeLibraryImp* owner, const std::string& value,
                                    bool& cropped);

    dataExchangeOptionStringInternal(int32_t type, uint32_t access, const std::string& name,
                                     const std::string& summary, const std::string& description,
                                     dataExchangeLibraryImp* owner, std::string defaultValue,
                                     Getter getter, Setter setter);
    ~dataExchangeOptionStringInternal() override = default;

    AccessStatus currentValueAsString(std::string& out) const override;
    AccessStatus defaultValueAsString(std::string& out) const override;
    AccessStatus setValueFromString(const std::string& value, bool& cropped) override;
    bool hasMinValue() const override { return false; }
    bool hasMaxValue() const override { return false; }
    bool hasDefaultValue() const override { return !defaultValue.empty(); }

private:
    std::string defaultValue;
    Getter getter;
    Setter setter;
};

} // namespace measurement::dataExchange
