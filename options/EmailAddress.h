#pragma once

#include <string>

namespace measurement::dataExchange {

// Whether value is an address of the form the library accepts: word characters, hyphens and dots
// on both sides of a single '@', and after the last dot letters only
// (^[\w\-.]+@[\w\-.]+\.[a-zA-Z]+$). A linear scan: a regular-expression engine with a recursive
// matcher would overflow the stack on long hostile input.
bool isAcceptedEmailAddress(const std::string& value);

} // namespace measurement::dataExchange
