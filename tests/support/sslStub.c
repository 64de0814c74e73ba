int dataExchangeSslStub; /* nothing: SSL_library_init and friends are missing */
