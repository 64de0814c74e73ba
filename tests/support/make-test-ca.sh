#!/bin/sh
# make-test-ca.sh FOLDER: a test CA (ca.pem) and a certificate it signed for 127.0.0.1
# (server.pem, server.key) in FOLDER, valid for two days. The HTTPS tests trust ca.pem themselves.
set -e
cd "$1"
key="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
echo subjectAltName=IP:127.0.0.1 >san.cnf
# shellcheck disable=SC2086 # $key holds several arguments
openssl req -x509 -days 2 -subj /CN=dataExchange-test-CA $key -keyout ca.key -out ca.pem 2>/dev/null
# shellcheck disable=SC2086
openssl req -subj /CN=127.0.0.1 $key -keyout server.key -out server.csr 2>/dev/null
openssl x509 -req -days 2 -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial \
    -extfile san.cnf -out server.pem 2>/dev/null
