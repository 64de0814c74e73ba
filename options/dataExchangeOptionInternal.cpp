#include "options/dataExchangeOptionInternal.h"

#include "api/Signature.h"

#include <utility>

namespace measurement::dataExchange {

std::string optionTypeName(int32_t type) {
    switch (type) {
    case Int32:
        return "Int32";
    case Uint32:
        return "Uint32";
    case Uint64:
        return "Uint64";
    case String:
        return "String";
    case Undefined:
        return "Undefined type (wrong initialisation)";
    default:
        return "Unknown option type";
    }
}

dataExchangeOptionInternal::dataExchangeOptionInternal(int32_t type, uint32_t access,
                                                       const std::string& name,
                                                       const std::string& summary,
                                                       const std::string& description,
                                                       dataExchangeLibraryImp* owner)
    : dataExchangeOptionDescription{}, owner(owner), nameText(name), summaryText(summary),
      descriptionText(description) {
    this->name = nameText.c_str();
    this->summary = summaryText.c_str();
    this->description = descriptionText.c_str();
    this->access = access;
    this->type = type;
}

dataExchangeOptionInternal::~dataExchangeOptionInternal() {
    nameText.clear();
    summaryText.clear();
    descriptionText.clear();
    pendingMessage.clear();
}

std::string dataExchangeOptionInternal::takePendingMessage() const {
    std::string message;
    message.swap(pendingMessage);
    return message;
}

dataExchangeOptionInternal::AccessStatus
dataExchangeOptionInternal::fail(AccessStatus status, std::string message) const {
    pendingMessage = std::move(message);
    return status;
}

bool dataExchangeOptionInternal::typeIs(int32_t classType) const {
    return type == classType;
}

dataExchangeOptionInternal::AccessStatus dataExchangeOptionInternal::wrongType() const {
    return fail(dataExchangeLibraryImp::WrongType, "Option type is " + optionTypeName(type));
}

dataExchangeOptionInternal::AccessStatus
dataExchangeOptionInternal::unimplemented(const char* signature) const {
    return fail(dataExchangeLibraryImp::Unimplemented,
                std::string("Unimplemented ") + signature + " method");
}

// A class answers only the operations of its own type; every other one lands here.
#define DATAEXCHANGE_UNIMPLEMENTED return unimplemented(DATAEXCHANGE_SIGNATURE)

using AccessStatus = dataExchangeOptionInternal::AccessStatus;

AccessStatus dataExchangeOptionInternal::currentValueAsInt32(int32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::defaultValueAsInt32(int32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::minValueAsInt32(int32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::maxValueAsInt32(int32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::setValueFromInt32(const int32_t&, bool&) {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::currentValueAsUint32(uint32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::defaultValueAsUint32(uint32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::minValueAsUint32(uint32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::maxValueAsUint32(uint32_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::setValueFromUint32(const uint32_t&, bool&) {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::currentValueAsUint64(uint64_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::defaultValueAsUint64(uint64_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::minValueAsUint64(uint64_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::maxValueAsUint64(uint64_t&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::setValueFromUint64(const uint64_t&, bool&) {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::currentValueAsString(std::string&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::defaultValueAsString(std::string&) const {
    DATAEXCHANGE_UNIMPLEMENTED;
}
AccessStatus dataExchangeOptionInternal::setValueFromString(const std::string&, bool&) {
    DATAEXCHANGE_UNIMPLEMENTED;
}

} // namespace measurement::dataExchange
