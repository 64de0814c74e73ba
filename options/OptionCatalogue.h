// The seven options every handle offers, the value functions that connect them to the handle's
// storage, and the conversions of the stored device and data type into their short texts.
#pragma once

#include "api/dataExchangeLibraryImp.h"

#include <cstdint>
#include <string>

namespace measurement::dataExchange {

using AccessStatus = dataExchangeLibraryImp::AccessStatus;

// Fills the handle's option map on first use; returns it unchanged afterwards.
dataExchangeLibraryImp::OptionMap& buildOptionCatalogue(dataExchangeLibraryImp& owner);

// The builder that dataExchangeInit asks for the catalogue. Replaceable so that tests can reach
// the path of a handle without options; returns the previous builder.
using CatalogueBuilder = dataExchangeLibraryImp::OptionMap& (*)(dataExchangeLibraryImp&);
CatalogueBuilder catalogueBuilder();
CatalogueBuilder replaceCatalogueBuilder(CatalogueBuilder builder);

// Value functions: one getter and one setter per option.
int32_t loadDeviceType(dataExchangeLibraryImp* owner);
AccessStatus storeDeviceType(dataExchangeLibraryImp* owner, const int32_t& value, bool& cropped);
uint32_t loadLocation(dataExchangeLibraryImp* owner);
AccessStatus storeLocation(dataExchangeLibraryImp* owner, const uint32_t& value, bool& cropped);
uint64_t loadSerialNumber(dataExchangeLibraryImp* owner);
AccessStatus storeSerialNumber(dataExchangeLibraryImp* owner, const uint64_t& value, bool& cropped);
std::string loadEmailAddress(dataExchangeLibraryImp* owner);
AccessStatus storeEmailAddress(dataExchangeLibraryImp* owner, const std::string& value,
                               bool& cropped);
int32_t loadDataType(dataExchangeLibraryImp* owner);
AccessStatus storeDataType(dataExchangeLibraryImp* owner, const int32_t& value, bool& cropped);
uint32_t loadReport(dataExchangeLibraryImp* owner);
AccessStatus storeReport(dataExchangeLibraryImp* owner, const uint32_t& value, bool& cropped);
std::string loadUserName(dataExchangeLibraryImp* owner);
AccessStatus storeUserName(dataExchangeLibraryImp* owner, const std::string& value, bool& cropped);

// Short code of the stored device type ("cvX5", ...). Other values give "Unsupported device
// type", an error-list entry and UnhandledValue.
AccessStatus deviceTypeCode(const dataExchangeLibraryImp& owner, std::string& out);
// Tag of the stored data type ("precalibration", ...). Other values leave out unchanged and give
// an error-list entry and UnhandledValue.
AccessStatus dataTypeTag(const dataExchangeLibraryImp& owner, std::string& out);

} // namespace measurement::dataExchange
