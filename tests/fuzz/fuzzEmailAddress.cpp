// The e-mail rule on arbitrary bytes, compared with the regular expression it implements. Only
// short inputs go to std::regex: its recursive matcher exhausts the stack on long ones, which is
// why the rule is a linear scan.
#include "options/EmailAddress.h"

#include <cstdint>
#include <cstdlib>
#include <regex>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const bool accepted = measurement::dataExchange::isAcceptedEmailAddress(text);
    if (size <= 64) {
        // Word characters, hyphens and dots; the hyphen escaped, since libstdc++ reads
        // "[\w-\.]" as a range and refuses it.
        static const std::regex rule(R"(^[\w\-.]+@[\w\-.]+\.[a-zA-Z]+$)");
        if (accepted != std::regex_match(text, rule))
            std::abort();
    }
    return 0;
}
