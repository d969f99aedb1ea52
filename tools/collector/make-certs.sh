#!/usr/bin/env bash
# Writes a throw-away certificate authority and a server certificate signed by it into OUTDIR:
#   ca.pem          the authority, for clients to trust (its key is discarded)
#   server.pem      the server certificate
#   server-key.pem  its private key
# The server certificate names localhost, 127.0.0.1 and every further argument (host names or
# IPv4 addresses), so a client may reach the real service host names on a local server.
#
# usage: make-certs.sh OUTDIR [NAME...]
set -euo pipefail

out=${1:?usage: make-certs.sh OUTDIR [NAME...]}
shift
mkdir -p "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/pelora-certs.XXXXXX")
trap 'rm -rf "$work"' EXIT

names="DNS:localhost,IP:127.0.0.1"
for name in "$@"; do
  case "$name" in
    localhost | 127.0.0.1 | "") continue ;;
  esac
  if [[ $name =~ ^[0-9]+(\.[0-9]+){3}$ ]]; then entry="IP:$name"; else entry="DNS:$name"; fi
  case ",$names," in
    *",$entry,"*) ;;
    *) names="$names,$entry" ;;
  esac
done

days=10000
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

key "$work/ca-key.pem"
openssl req -x509 -new -key "$work/ca-key.pem" -out "$work/ca.pem" -days "$days" \
  -subj "/CN=Pelora Test Authority" \
  -addext "basicConstraints=critical,CA:TRUE" -addext "keyUsage=critical,keyCertSign,cRLSign"

key "$work/server-key.pem"
openssl req -new -key "$work/server-key.pem" -out "$work/server.csr" -subj "/CN=localhost"
cat >"$work/server.ext" <<EXT
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature
extendedKeyUsage=serverAuth
subjectAltName=$names
EXT
openssl x509 -req -in "$work/server.csr" -CA "$work/ca.pem" -CAkey "$work/ca-key.pem" \
  -CAcreateserial -out "$work/server.pem" -days "$days" -extfile "$work/server.ext" 2>/dev/null

# The key last: a build that stops half-way leaves no complete-looking set behind.
cp "$work/ca.pem" "$work/server.pem" "$out/"
cp "$work/server-key.pem" "$out/server-key.pem.tmp"
chmod 600 "$out/server-key.pem.tmp"
mv "$out/server-key.pem.tmp" "$out/server-key.pem"
