// Where the processing server is: filled from the Server element of config.xml.
#pragma once

#include <QString>
#include <cstdint>

namespace measurement::dataExchange {

struct ServerSettings {
    QString name = QStringLiteral(""); // host as placed in the URL, possibly with ":port"
    std::uint16_t port = 0;
    QString protocol = QStringLiteral(""); // URL scheme
    std::uint32_t timeout = 0;
};

} // namespace measurement::dataExchange
