// libcurl and the OpenSSL it uses, loaded when the streaming upload is first switched on, not
// when the library is: a host without them (or without OpenSSL, which Qt also loads only when it
// needs it) keeps every other way of working, and gets NotAvailable for this one alone.
#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace measurement::dataExchange {

struct CurlLibrary {
    CURL* (*easy_init)();
    void (*easy_cleanup)(CURL*);
    CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
    CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...);
    const char* (*easy_strerror)(CURLcode);
    CURLM* (*multi_init)();
    CURLMcode (*multi_cleanup)(CURLM*);
    CURLMcode (*multi_add_handle)(CURLM*, CURL*);
    CURLMcode (*multi_remove_handle)(CURLM*, CURL*);
    CURLMcode (*multi_perform)(CURLM*, int*);
    CURLMcode (*multi_poll)(CURLM*, struct curl_waitfd*, unsigned, int, int*);
    CURLMsg* (*multi_info_read)(CURLM*, int*);
    curl_slist* (*slist_append)(curl_slist*, const char*);
    void (*slist_free_all)(curl_slist*);

    void (*SSL_CTX_set_verify)(SSL_CTX*, int, SSL_verify_cb);
    int (*SSL_CTX_set_ex_data)(SSL_CTX*, int, void*);
    void* (*SSL_CTX_get_ex_data)(const SSL_CTX*, int);
    SSL_CTX* (*SSL_get_SSL_CTX)(const SSL*);
    int (*SSL_get_ex_data_X509_STORE_CTX_idx)();
    void* (*X509_STORE_CTX_get_ex_data)(const X509_STORE_CTX*, int);
    X509* (*X509_STORE_CTX_get_current_cert)(const X509_STORE_CTX*);
    int (*X509_STORE_CTX_get_error_depth)(const X509_STORE_CTX*);
    int (*X509_STORE_CTX_get_error)(const X509_STORE_CTX*);
    int (*i2d_X509)(const X509*, unsigned char**);

    // The functions, or nullptr when one of the libraries or functions is missing. Loaded once,
    // on the first call, from any thread.
    static const CurlLibrary* get();
};

} // namespace measurement::dataExchange
