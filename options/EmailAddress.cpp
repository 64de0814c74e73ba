#include "options/EmailAddress.h"

namespace measurement::dataExchange {

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isAddressCharacter(char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

bool allAddressCharacters(const std::string& text) {
    for (char c : text)
        if (!isAddressCharacter(c))
            return false;
    return true;
}

bool allLetters(const std::string& text) {
    for (char c : text)
        if (!isLetter(c))
            return false;
    return true;
}

} // namespace

bool isAcceptedEmailAddress(const std::string& value) {
    const std::string::size_type at = value.find('@');
    if (at == std::string::npos || at == 0)
        return false;
    const std::string local = value.substr(0, at);
    const std::string domain = value.substr(at + 1);
    if (!allAddressCharacters(local) || !allAddressCharacters(domain))
        return false;
    // The ending after the last dot holds letters only, so that dot is the one that splits the
    // domain; something must stand before it.
    const std::string::size_type dot = domain.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == domain.size())
        return false;
    return allLetters(domain.substr(dot + 1));
}

} // namespace measurement::dataExchange
