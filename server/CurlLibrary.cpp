#include "server/CurlLibrary.h"

#include "System.h"

#include <QLibrary>
#include <QStringList>

namespace measurement::dataExchange {

namespace {

// The first of the names that loads, into one of the objects that keep them until the process
// ends (a QLibrary does not unload when it goes).
QLibrary* load(const QStringList& names) {
    static QLibrary kept[3];
    static int used = 0;
    for (const QString& name : names) {
        QLibrary& library = kept[used];
        library.setFileName(name);
        if (library.load())
            return &kept[used++];
    }
    return nullptr;
}

template <typename Function> bool resolve(QLibrary* library, const char* name, Function& function) {
    function = library != nullptr ? reinterpret_cast<Function>(library->resolve(name)) : nullptr;
    return function != nullptr;
}

bool loadInto(CurlLibrary& l) {
#ifdef _WIN32
    // Beside dataExchange.dll first, where the win64 zip and the packages put it: a host such as
    // python.exe lives elsewhere, and loading by name searches the program's folder and PATH.
    const QString beside = QString::fromStdString(System::libraryFolder());
    QStringList curlNames{"libcurl", "libcurl-4"};
    if (!beside.isEmpty())
        curlNames = QStringList{beside + "/libcurl.dll", beside + "/libcurl-4.dll"} + curlNames;
    QLibrary* curl = load(curlNames);
    QLibrary* ssl = load({"libssl-3-x64"});
    QLibrary* crypto = load({"libcrypto-3-x64"});
#else
    QLibrary* curl = load({"libcurl.so.4"});
    QLibrary* ssl = load({"libssl.so.3"});
    QLibrary* crypto = load({"libcrypto.so.3"});
#endif
    return resolve(curl, "curl_easy_init", l.easy_init) &&
           resolve(curl, "curl_easy_cleanup", l.easy_cleanup) &&
           resolve(curl, "curl_easy_setopt", l.easy_setopt) &&
           resolve(curl, "curl_easy_getinfo", l.easy_getinfo) &&
           resolve(curl, "curl_easy_strerror", l.easy_strerror) &&
           resolve(curl, "curl_multi_init", l.multi_init) &&
           resolve(curl, "curl_multi_cleanup", l.multi_cleanup) &&
           resolve(curl, "curl_multi_add_handle", l.multi_add_handle) &&
           resolve(curl, "curl_multi_remove_handle", l.multi_remove_handle) &&
           resolve(curl, "curl_multi_perform", l.multi_perform) &&
           resolve(curl, "curl_multi_poll", l.multi_poll) &&
           resolve(curl, "curl_multi_info_read", l.multi_info_read) &&
           resolve(curl, "curl_slist_append", l.slist_append) &&
           resolve(curl, "curl_slist_free_all", l.slist_free_all) &&
           resolve(ssl, "SSL_CTX_set_verify", l.SSL_CTX_set_verify) &&
           resolve(ssl, "SSL_CTX_set_ex_data", l.SSL_CTX_set_ex_data) &&
           resolve(ssl, "SSL_CTX_get_ex_data", l.SSL_CTX_get_ex_data) &&
           resolve(ssl, "SSL_get_SSL_CTX", l.SSL_get_SSL_CTX) &&
           resolve(ssl, "SSL_get_ex_data_X509_STORE_CTX_idx",
                   l.SSL_get_ex_data_X509_STORE_CTX_idx) &&
           resolve(crypto, "X509_STORE_CTX_get_ex_data", l.X509_STORE_CTX_get_ex_data) &&
           resolve(crypto, "X509_STORE_CTX_get_current_cert", l.X509_STORE_CTX_get_current_cert) &&
           resolve(crypto, "X509_STORE_CTX_get_error_depth", l.X509_STORE_CTX_get_error_depth) &&
           resolve(crypto, "X509_STORE_CTX_get_error", l.X509_STORE_CTX_get_error) &&
           resolve(crypto, "i2d_X509", l.i2d_X509);
}

} // namespace

const CurlLibrary* CurlLibrary::get() {
    static CurlLibrary library;
    static const bool loaded = loadInto(library);
    return loaded ? &library : nullptr;
}

} // namespace measurement::dataExchange
