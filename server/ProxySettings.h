// Proxy of config.xml: read and kept, but no request uses it.
#pragma once

#include <QString>

namespace measurement::dataExchange {

struct ProxySettings {
    QString url;
    QString user;
    QString password;
};

} // namespace measurement::dataExchange
