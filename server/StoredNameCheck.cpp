#include "server/StoredNameCheck.h"

#include "UnicodePaths.h"

#include <QList>

namespace measurement::dataExchange {

namespace {

// Shown of an answer: its first line, at most this many bytes.
constexpr int shownLimit = 120;

std::string shown(const QByteArray& answer) {
    QByteArray line = answer.left(answer.indexOf('\n') < 0 ? answer.size() : answer.indexOf('\n'));
    const bool cut = line.size() > shownLimit || line.size() < answer.size();
    line = line.left(shownLimit);
    // A cut may split a character: escaped() shows its bytes as \xNN.
    return "'" + UnicodePaths::escaped(line.toStdString()) + "'" + (cut ? " (cut)" : "");
}

bool startsLikePhp(const QByteArray& answer) {
    static const QList<QByteArray> starts{
        "Notice:", "Warning:", "Deprecated:", "Fatal error:", "Parse error:", "PHP "};
    for (const QByteArray& start : starts)
        if (answer.startsWith(start))
            return true;
    // With html_errors on: "<br />\n<b>Warning</b>:  ..."
    return answer.startsWith("<br />") &&
           (answer.contains("<b>Notice</b>") || answer.contains("<b>Warning</b>") ||
            answer.contains("<b>Deprecated</b>") || answer.contains("error</b>"));
}

std::string why(const QByteArray& name) {
    if (startsLikePhp(name))
        return "it starts like a PHP notice, warning or error: the server shows PHP's messages "
               "in its answers (display_errors), which must be off for uploads";
    if (name.startsWith('<'))
        return "it is HTML, a page from a proxy, a login portal or a misconfigured server";
    if (name.contains('\n') || name.contains('\r'))
        return "it has more than one line";
    if (UnicodePaths::invalidUtf8Offset(name.toStdString()) != std::string::npos)
        return "it is not UTF-8";
    if (UnicodePaths::escaped(name.toStdString()) != name.toStdString())
        return "it holds control characters";
    if (name.contains('/') || name.contains('\\'))
        return "it holds '/' or '\\'";
    if (name == "." || name == "..")
        return "'.' and '..' name no file";
    if (name.size() > StoredNameCheck::nameLimit)
        return "it is longer than 255 bytes";
    return {};
}

} // namespace

std::string StoredNameCheck::problem(const QByteArray& answer, const std::string& url) {
    const QByteArray name = answer.trimmed();
    const std::string reason = why(name);
    if (reason.empty())
        return {};
    return "The server's answer is not a stored file name: " + url + " answered " + shown(name) +
           "; " + reason;
}

std::string StoredNameCheck::tooLong(const std::string& url) {
    return "The server's answer is not a stored file name: " + url + " answered more than " +
           std::to_string(answerLimit) + " bytes, and the reply was aborted there";
}

} // namespace measurement::dataExchange
