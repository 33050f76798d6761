#!/bin/sh
# Regenerates the test-only TLS material in tls/: a trusted test authority with a
# server certificate for 127.0.0.1 and localhost, a second authority that nothing
# trusts by default with its own server certificate, and a certificate from the
# trusted authority that names another host. Valid for about 50 years, so the
# committed files never need refreshing. The private keys are for tests only.
set -eu
cd "$(dirname "$0")/tls"
days=18262
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

authority() { # name subject
    key "$1.key"
    cat >"$work/$1.ext" <<CONF
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
CONF
    openssl req -new -key "$1.key" -subj "$2" -out "$work/$1.csr"
    openssl x509 -req -in "$work/$1.csr" -signkey "$1.key" -days "$days" \
        -sha256 -extfile "$work/$1.ext" -out "$1.pem" 2>/dev/null
}

server() { # name authority subject subjectAltName
    key "$1.key"
    cat >"$work/$1.ext" <<CONF
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = $4
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
CONF
    openssl req -new -key "$1.key" -subj "$3" -out "$work/$1.csr"
    openssl x509 -req -in "$work/$1.csr" -CA "$2.pem" -CAkey "$2.key" -set_serial "0x$(openssl rand -hex 8)" \
        -days "$days" -sha256 -extfile "$work/$1.ext" -out "$1.pem" 2>/dev/null
}

authority test-ca "/O=TessraKite tests/CN=TessraKite Test CA"
server server test-ca "/O=TessraKite tests/CN=127.0.0.1" "IP:127.0.0.1, DNS:localhost"
server wrong-host-server test-ca "/O=TessraKite tests/CN=wrong.invalid" "DNS:wrong.invalid"
authority untrusted-ca "/O=Somebody else/CN=Untrusted Test CA"
server untrusted-server untrusted-ca "/O=Somebody else/CN=127.0.0.1" "IP:127.0.0.1, DNS:localhost"
