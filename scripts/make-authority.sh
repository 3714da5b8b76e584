#!/usr/bin/env bash
# Makes a throwaway certificate authority and the agent credentials it signs, in DIR (made if
# missing), for agents that talk mutual TLS on loopback:
#   ca.pem ca.key                the authority
#   agent.pem agent.key          an agent certificate of that authority, CN "q7 agent", for
#                                127.0.0.1, as server and as client
#   rogue-ca.pem rogue-ca.key    another authority, which ca does not trust
#   rogue.pem rogue.key          an agent certificate of the other authority, alike otherwise
# Keys are made afresh on every run and never kept in the tree. Prints nothing unless it fails.
# Usage: scripts/make-authority.sh DIR
set -euo pipefail

if (($# != 1)); then
  echo "usage: $0 DIR" >&2
  exit 2
fi
DIR=$1
mkdir -p "$DIR"
umask 077  # private keys readable by their owner only

WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

# OpenSSL chats on stderr even when it succeeds: its words are shown only when it fails.
quietly() {
  local said
  if ! said=$("$@" 2>&1); then
    printf 'make-authority: %s failed:\n%s\n' "$*" "$said" >&2
    exit 1
  fi
}

# Our own configuration, so that the system's defaults add no extension of their own.
cat >"$WORK/openssl.cnf" <<'EOF'
[req]
distinguished_name = dn
prompt = no
[dn]
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[agent]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth, clientAuth
subjectAltName = IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EOF

key() {
  quietly openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out "$DIR/$1.key"
}

# authority NAME SUBJECT
authority() {
  key "$1"
  quietly openssl req -new -x509 -config "$WORK/openssl.cnf" -extensions authority -key "$DIR/$1.key" \
    -subj "$2" -days 2 -out "$DIR/$1.pem"
}

# agent NAME AUTHORITY
agent() {
  key "$1"
  quietly openssl req -new -config "$WORK/openssl.cnf" -key "$DIR/$1.key" -subj "/CN=q7 agent" -out "$WORK/$1.csr"
  quietly openssl x509 -req -in "$WORK/$1.csr" -CA "$DIR/$2.pem" -CAkey "$DIR/$2.key" \
    -set_serial "0x$(openssl rand -hex 8)" -days 2 -extfile "$WORK/openssl.cnf" -extensions agent \
    -out "$DIR/$1.pem"
}

authority ca "/CN=q7 test authority"
agent agent ca
authority rogue-ca "/CN=q7 rogue authority"
agent rogue rogue-ca

# The files are what the tests take them for: ca trusts agent and not rogue.
quietly openssl verify -CAfile "$DIR/ca.pem" "$DIR/agent.pem"
if openssl verify -CAfile "$DIR/ca.pem" "$DIR/rogue.pem" >/dev/null 2>&1; then
  echo "make-authority: ca.pem trusts rogue.pem" >&2
  exit 1
fi
