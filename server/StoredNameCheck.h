// What verified delivery accepts as the server's answer to an upload: the name it stored the
// item under, and nothing else. PHP notices shown with display_errors, an HTML page from a proxy
// or a misconfigured server, megabytes from a broken one: none of them names a file, and a job
// request for such a "name" would ask for a file that does not exist.
#pragma once

#include <QByteArray>
#include <string>

namespace measurement::dataExchange {

class StoredNameCheck {
public:
    // A name is at most 255 bytes; the answer is read up to 16 times that, enough to show a PHP
    // notice or two before a name, and never more, whatever the server sends.
    static constexpr qint64 answerLimit = 4096;
    static constexpr int nameLimit = 255;

    // Empty when the answer (white space around it removed) is a file name; otherwise why not,
    // with what came back: its first line, cut and escaped.
    static std::string problem(const QByteArray& answer, const std::string& url);
    static std::string tooLong(const std::string& url);
};

} // namespace measurement::dataExchange
