// An option: a named, typed value whose storage lives in the handle. The typed operations check
// type, getter, setter and bounds and hand over to the option's value functions.
#pragma once

#include "api/dataExchangeLibraryImp.h"
#include "dataExchange.h"

#include <cstdint>
#include <string>

namespace measurement::dataExchange {

// "Int32", "Uint32", "Uint64", "String", "Undefined type (wrong initialisation)", or
// "Unknown option type" for any other code.
std::string optionTypeName(int32_t type);

class dataExchangeOptionInternal : public dataExchangeOptionDescription {
public:
    using AccessStatus = dataExchangeLibraryImp::AccessStatus;

    dataExchangeOptionInternal(int32_t type, uint32_t access, const std::string& name,
                               const std::string& summary, const std::string& description,
                               dataExchangeLibraryImp* owner);
    virtual ~dataExchangeOptionInternal();
    dataExchangeOptionInternal(const dataExchangeOptionInternal&) = delete;
    dataExchangeOptionInternal& operator=(const dataExchangeOptionInternal&) = delete;

    virtual AccessStatus currentValueAsInt32(int32_t& out) const;
    virtual AccessStatus defaultValueAsInt32(int32_t& out) const;
    virtual AccessStatus minValueAsInt32(int32_t& out) const;
    virtual AccessStatus maxValueAsInt32(int32_t& out) const;
    virtual AccessStatus setValueFromInt32(const int32_t& value, bool& cropped);
    virtual AccessStatus currentValueAsUint32(uint32_t& out) const;
    virtual AccessStatus defaultValueAsUint32(uint32_t& out) const;
    virtual AccessStatus minValueAsUint32(uint32_t& out) const;
    virtual AccessStatus maxValueAsUint32(uint32_t& out) const;
    virtual AccessStatus setValueFromUint32(const uint32_t& value, bool& cropped);
    virtual AccessStatus currentValueAsUint64(uint64_t& out) const;
    virtual AccessStatus defaultValueAsUint64(uint64_t& out) const;
    virtual AccessStatus minValueAsUint64(uint64_t& out) const;
    virtual AccessStatus maxValueAsUint64(uint64_t& out) const;
    virtual AccessStatus setValueFromUint64(const uint64_t& value, bool& cropped);
    virtual AccessStatus currentValueAsString(std::string& out) const;
    virtual AccessStatus defaultValueAsString(std::string& out) const;
    virtual AccessStatus setValueFromString(const std::string& value, bool& cropped);
    virtual bool hasMinValue() const = 0;
    virtual bool hasMaxValue() const = 0;
    virtual bool hasDefaultValue() const = 0;

    // Hands out the reason of the last failed operation and forgets it.
    std::string takePendingMessage() const;

protected:
    AccessStatus fail(AccessStatus status, std::string message) const;
    // The check that opens every typed operation: the object's type code must be the class's.
    bool typeIs(int32_t classType) const;
    AccessStatus wrongType() const;

    // Shared bodies of the typed operations.
    template <typename T, typename Getter>
    AccessStatus readCurrent(Getter getter, T& out, AccessStatus noGetterStatus) const {
        if (getter == nullptr)
            return fail(noGetterStatus, "Value is write-only");
        out = getter(owner);
        return dataExchangeLibraryImp::Ok;
    }
    template <typename T>
    AccessStatus readStored(const T& stored, bool present, const char* missing, T& out) const {
        if (!present)
            return fail(dataExchangeLibraryImp::NoValue, missing);
        out = stored;
        return dataExchangeLibraryImp::Ok;
    }
    // Clips to the bounds (absent bounds carry markers that clip nothing for the unsigned
    // types) and reports whether the stored value differs from the given one.
    template <typename T, typename Setter>
    AccessStatus writeClamped(Setter setter, const T& value, const T& min, const T& max,
                              bool& cropped, AccessStatus noSetterStatus,
                              const char* noSetterMessage) {
        if (setter == nullptr)
            return fail(noSetterStatus, noSetterMessage);
        T c = value;
        if (value >= max)
            c = max;
        if (min >= c)
            c = min;
        cropped = c != value;
        return setter(owner, c, cropped);
    }

    dataExchangeLibraryImp* owner;
    std::string nameText;
    std::string summaryText;
    std::string descriptionText;
    mutable std::string pendingMessage;

private:
    AccessStatus unimplemented(const char* signature) const;
};

} // namespace measurement::dataExchange
