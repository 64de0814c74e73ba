#include "options/OptionCatalogue.h"

#include "options/EmailAddress.h"
#include "options/dataExchangeOptionInt32Internal.h"
#include "options/dataExchangeOptionStringInternal.h"
#include "options/dataExchangeOptionUint32Internal.h"
#include "options/dataExchangeOptionUint64Internal.h"

#include <iterator>

namespace measurement::dataExchange {

namespace {

constexpr uint32_t readWrite = 3;

struct DeviceType {
    const char* code;
    const char* displayName;
};

// Indexed by the "Device type" value. The display names are kept with the codes they belong to,
// although only the codes reach files and records.
constexpr DeviceType deviceTypes[] = {
    {"cvX5", "Corvane X5"}, {"cvX2", "Corvane X2"}, {"lmM1", "Lumex M1"},
    {"lmM3", "Lumex M3"},   {"brd", "Braidline"},
};
constexpr const char* unsupportedDeviceCode = "Unsupported device type";
[[maybe_unused]] constexpr const char* unknownDeviceName = "Unknown device";

// Indexed by the "Data type" value (dataExchangeDataType).
constexpr const char* dataTypeTags[] = {"precalibration", "cmm", "forest", "AVT",
                                        "datalogger",     "cit", "logFile"};

std::string unhandledValue(const char* optionName) {
    return std::string("Unhandled value for '") + optionName + "'";
}

CatalogueBuilder currentBuilder = &buildOptionCatalogue;

template <typename Option, typename... Args>
void addOption(dataExchangeLibraryImp::OptionMap& map, Args&&... args) {
    auto* option = new Option(std::forward<Args>(args)...);
    map[option->name] = option;
}

} // namespace

CatalogueBuilder catalogueBuilder() {
    return currentBuilder;
}

CatalogueBuilder replaceCatalogueBuilder(CatalogueBuilder builder) {
    CatalogueBuilder previous = currentBuilder;
    currentBuilder = builder;
    return previous;
}

dataExchangeLibraryImp::OptionMap& buildOptionCatalogue(dataExchangeLibraryImp& owner) {
    auto& map = owner.options;
    if (!map.empty())
        return map;
    using I32 = dataExchangeOptionInt32Internal;
    using U32 = dataExchangeOptionUint32Internal;
    using U64 = dataExchangeOptionUint64Internal;
    using Str = dataExchangeOptionStringInternal;
    addOption<I32>(map, Int32, readWrite, "Device type", "Type of the device",
                   "This is the type of the device.", &owner, 0, 4, I32::absentDefault,
                   &loadDeviceType, &storeDeviceType);
    addOption<U32>(map, Uint32, readWrite, "Location", "Location where data will be uploaded to",
                   "Location where data will be uploaded to, 1 stands for ...", &owner, 1u, 3u, 3u,
                   &loadLocation, &storeLocation);
    addOption<U64>(map, Uint64, readWrite, "Serial number", "Serial number of the device",
                   "This is the the device serial number.", &owner, U64::absentMin, U64::absentMax,
                   U64::absentDefault, &loadSerialNumber, &storeSerialNumber);
    addOption<Str>(map, String, readWrite, "Email address", "Email address", "User email address.",
                   &owner, std::string(), &loadEmailAddress, &storeEmailAddress);
    addOption<I32>(map, Int32, readWrite, "Data type", "Type of data",
                   "Type of sent data, corresponding to values of dataExchangeDataType.", &owner, 0,
                   6, I32::absentDefault, &loadDataType, &storeDataType);
    addOption<U32>(map, Uint32, readWrite, "Report", "Enable reporting",
                   "Enable reporting, 0 = no report wanted, 1 = report is wanted.", &owner, 0u, 1u,
                   1u, &loadReport, &storeReport);
    addOption<Str>(map, String, readWrite, "User", "User name",
                   "User (nick) name of the person sending the data.", &owner, std::string(),
                   &loadUserName, &storeUserName);
    return map;
}

int32_t loadDeviceType(dataExchangeLibraryImp* owner) {
    return owner->deviceType.load();
}

AccessStatus storeDeviceType(dataExchangeLibraryImp* owner, const int32_t& value, bool&) {
    owner->deviceType.exchange(value);
    return dataExchangeLibraryImp::Ok;
}

uint32_t loadLocation(dataExchangeLibraryImp* owner) {
    return owner->location.load();
}

// The option's bounds already clip the value; this guards direct calls.
AccessStatus storeLocation(dataExchangeLibraryImp* owner, const uint32_t& value, bool&) {
    if (value - 1u >= 3u) {
        owner->appendError(unhandledValue("Location"));
        return dataExchangeLibraryImp::UnhandledValue;
    }
    owner->location.exchange(value);
    return dataExchangeLibraryImp::Ok;
}

uint64_t loadSerialNumber(dataExchangeLibraryImp* owner) {
    return owner->serialNumber.load();
}

AccessStatus storeSerialNumber(dataExchangeLibraryImp* owner, const uint64_t& value, bool&) {
    owner->serialNumber.exchange(value);
    return dataExchangeLibraryImp::Ok;
}

std::string loadEmailAddress(dataExchangeLibraryImp* owner) {
    std::lock_guard<std::mutex> lock(owner->emailMutex);
    return owner->emailAddress;
}

AccessStatus storeEmailAddress(dataExchangeLibraryImp* owner, const std::string& value, bool&) {
    std::lock_guard<std::mutex> lock(owner->emailMutex);
    if (!isAcceptedEmailAddress(value)) {
        owner->appendError("Invalid email address: " + value);
        return dataExchangeLibraryImp::InvalidValue;
    }
    owner->emailAddress = value;
    return dataExchangeLibraryImp::Ok;
}

int32_t loadDataType(dataExchangeLibraryImp* owner) {
    return owner->dataType.load();
}

// The option's bounds already clip the value; this guards direct calls.
AccessStatus storeDataType(dataExchangeLibraryImp* owner, const int32_t& value, bool&) {
    if (static_cast<uint32_t>(value) >= std::size(dataTypeTags)) {
        owner->appendError(unhandledValue("Data type"));
        return dataExchangeLibraryImp::UnhandledValue;
    }
    owner->dataType.exchange(value);
    return dataExchangeLibraryImp::Ok;
}

uint32_t loadReport(dataExchangeLibraryImp* owner) {
    return owner->report.load();
}

AccessStatus storeReport(dataExchangeLibraryImp* owner, const uint32_t& value, bool&) {
    owner->report.exchange(value);
    return dataExchangeLibraryImp::Ok;
}

std::string loadUserName(dataExchangeLibraryImp* owner) {
    std::lock_guard<std::mutex> lock(owner->userMutex);
    return owner->userName;
}

AccessStatus storeUserName(dataExchangeLibraryImp* owner, const std::string& value, bool&) {
    std::lock_guard<std::mutex> lock(owner->userMutex);
    owner->userName = value;
    return dataExchangeLibraryImp::Ok;
}

AccessStatus deviceTypeCode(const dataExchangeLibraryImp& owner, std::string& out) {
    const int32_t value = owner.deviceType.load();
    if (value < 0 || static_cast<uint32_t>(value) >= std::size(deviceTypes)) {
        out = unsupportedDeviceCode;
        owner.appendError(unhandledValue("Device type"));
        return dataExchangeLibraryImp::UnhandledValue;
    }
    out = deviceTypes[value].code;
    return dataExchangeLibraryImp::Ok;
}

AccessStatus dataTypeTag(const dataExchangeLibraryImp& owner, std::string& out) {
    const int32_t value = owner.dataType.load();
    if (value < 0 || static_cast<uint32_t>(value) >= std::size(dataTypeTags)) {
        owner.appendError(unhandledValue("Data type"));
        return dataExchangeLibraryImp::UnhandledValue;
    }
    out = dataTypeTags[value];
    return dataExchangeLibraryImp::Ok;
}

} // namespace measurement::dataExchange
