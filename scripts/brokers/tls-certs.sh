#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the certificates the brokers' TLS listeners and the TLS tests use,
# in $TAVREN_BROKER_DIR/tls (/var/tmp/tavren-brokers/tls):
#
#   ca.pem, ca.key               the test CA that signs everything below
#   server.pem, server.key       the brokers' certificate: CN and DNS name
#                                localhost, IP address 127.0.0.1
#   client.pem, client.key       a client certificate for mutual TLS
#   other-ca.pem, other-ca.key   a second CA that signed nothing here: a
#                                client trusting only it must refuse the brokers
#   broker-keystore.p12          server.key with server.pem and ca.pem, for ActiveMQ
#   broker-truststore.p12        ca.pem, for ActiveMQ to check client certificates
#
# Keys are EC P-256 and every certificate is valid for ten years. The two
# Java stores are PKCS12 files with the password $TAVREN_TLS_STORE_PASSWORD
# ("tavren-test"). Test material only: nothing here is secret beyond this
# machine's tests.
#
# Run by scripts/rabbitmq.sh and scripts/activemq.sh before a broker starts;
# can be run by hand too. Idempotent: the files are made anew only when one
# is missing, does not fit the others or expires within 30 days, so a broker
# that runs keeps the certificates it loaded. Every run sets the owners and
# modes again: server.key readable by group rabbitmq, the keystore by group
# activemq (when those users exist), other keys by root only, certificates by
# everyone. Needs openssl, and keytool (Java, which activemq brings) for the
# truststore.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/common.sh"

tls=$TAVREN_TLS_DIR
store_password=$TAVREN_TLS_STORE_PASSWORD
days=3650

# True when every file is there, the certificates chain to ca.pem, each key
# belongs to its certificate and nothing expires within 30 days.
complete() {
  local f
  for f in ca.pem ca.key server.pem server.key client.pem client.key other-ca.pem other-ca.key \
    broker-keystore.p12 broker-truststore.p12; do
    [ -s "$tls/$f" ] || return 1
  done
  openssl verify -CAfile "$tls/ca.pem" -purpose sslserver "$tls/server.pem" >/dev/null 2>&1 || return 1
  openssl verify -CAfile "$tls/ca.pem" -purpose sslclient "$tls/client.pem" >/dev/null 2>&1 || return 1
  for f in ca server client other-ca; do
    openssl x509 -in "$tls/$f.pem" -noout -checkend $((30 * 86400)) >/dev/null 2>&1 || return 1
    [ "$(openssl x509 -in "$tls/$f.pem" -noout -pubkey 2>/dev/null)" = \
      "$(openssl pkey -in "$tls/$f.key" -pubout 2>/dev/null)" ] || return 1
  done
  # The stores hold what they should, with the password the brokers are
  # given (openssl reads both; keytool would start a JVM for it).
  [ "$(store_fingerprint broker-keystore.p12)" = "$(openssl x509 -in "$tls/server.pem" -noout -fingerprint -sha256)" ] ||
    return 1
  [ "$(store_fingerprint broker-truststore.p12)" = "$(openssl x509 -in "$tls/ca.pem" -noout -fingerprint -sha256)" ]
}

# The fingerprint of the first certificate in store $1.
store_fingerprint() {
  openssl pkcs12 -in "$tls/$1" -passin "pass:$store_password" -nokeys 2>/dev/null |
    openssl x509 -noout -fingerprint -sha256 2>/dev/null
}

new_key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

# A self-signed CA: $1 the file stem, $2 its common name.
make_ca() {
  new_key "$1.key"
  openssl req -x509 -new -key "$1.key" -sha256 -days "$days" -subj "/O=libtavren tests/CN=$2" \
    -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -addext "subjectKeyIdentifier=hash" \
    -out "$1.pem"
}

# A certificate signed by ca: $1 the file stem, $2 its common name, $3 the
# extensions' file.
make_signed() {
  new_key "$1.key"
  openssl req -new -key "$1.key" -subj "/O=libtavren tests/CN=$2" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -CAcreateserial -sha256 -days "$days" \
    -extfile "$3" -out "$1.pem" 2>/dev/null
  rm -f "$1.csr"
}

make_all() {
  local work
  work=$(mktemp -d "$TAVREN_BROKER_DIR/tls-new.XXXXXX")
  (
    cd "$work"
    make_ca ca "libtavren test CA"
    make_ca other-ca "libtavren other test CA"
    cat > server.ext <<EXT
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyAgreement
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EXT
    cat > client.ext <<EXT
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyAgreement
extendedKeyUsage = clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EXT
    make_signed server localhost server.ext
    make_signed client "libtavren test client" client.ext
    rm -f server.ext client.ext ca.srl
    # ActiveMQ's key and certificate chain, and the CA it checks clients against.
    openssl pkcs12 -export -name broker -in server.pem -inkey server.key -certfile ca.pem \
      -passout "pass:$store_password" -out broker-keystore.p12
    keytool -importcert -noprompt -alias tavren-test-ca -file ca.pem -keystore broker-truststore.p12 \
      -storetype PKCS12 -storepass "$store_password" >/dev/null 2>&1
  ) || { rm -rf "$work"; return 1; }
  # Into place file by file; a broker already running keeps what it loaded.
  mkdir -p "$tls"
  local f
  for f in "$work"/*; do mv -f "$f" "$tls/"; done
  rmdir "$work"
  log "made new test certificates in $tls"
}

# Owner group and mode of file $1: group $2 (root when that group does not
# exist, because its broker is not installed) and mode $3.
own() {
  local group=$2
  getent group "$group" >/dev/null || group=root
  chown "root:$group" "$tls/$1"
  chmod "$3" "$tls/$1"
}

set_modes() {
  chown root:root "$tls"
  chmod 755 "$tls"
  local f
  for f in ca.pem server.pem client.pem other-ca.pem broker-truststore.p12; do own "$f" root 644; done
  for f in ca.key client.key other-ca.key; do own "$f" root 600; done
  own server.key rabbitmq 640
  own broker-keystore.p12 activemq 640
}

command -v openssl >/dev/null || { log "openssl is not installed; run scripts/install-brokers.sh"; exit 1; }
command -v keytool >/dev/null || { log "keytool (Java) is not installed; run scripts/install-brokers.sh"; exit 1; }
mkdir -p "$TAVREN_BROKER_DIR"
# One run at a time, should both broker scripts start together.
exec 9> "$TAVREN_BROKER_DIR/tls.lock"
flock -w 120 9 || { log "another run still holds $TAVREN_BROKER_DIR/tls.lock"; exit 1; }
# Made with no access for others, until set_modes gives each file its own.
umask 077
complete || make_all
set_modes
