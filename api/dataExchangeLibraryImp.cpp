#include "api/dataExchangeLibraryImp.h"

#include <utility>

dataExchangeLibraryImp::~dataExchangeLibraryImp() {
    // The option objects are deleted by dataExchangeClose; here only the map's nodes go.
    errors.clear();
    options.clear();
}

void dataExchangeLibraryImp::appendError(std::string message) const {
    errors.push_back(std::move(message));
}

bool dataExchangeLibraryImp::takeErrors(std::string& text) {
    text.clear();
    for (const std::string& message : errors) {
        text += message;
        text += '\n';
    }
    std::deque<std::string>().swap(errors);
    return !text.empty();
}
