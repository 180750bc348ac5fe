#!/bin/sh
# check-signatures.sh CERTIFICATE < REPORT: has the openssl command verify every signature that a
# report of signData or signUpdate dumps, with the key of a certificate: one line per
# signature. CERTIFICATE is a PEM file, or the name of a pair that the software token holds.
# Neither kestrel's nor the token's own use of OpenSSL takes part.
set -eu
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

[ -e "$1" ] || set -- "$(dirname "$0")/../../token/credentials/$1.pem"
openssl x509 -in "$1" -pubkey -noout > "$folder/key"
printf 'This is a test string to sign\0' > "$folder/message"

# A signature's mechanism is named behind its dump; the last part of a dump line is its text.
awk '
  /^Data in buffer after/ { hex = ""; dump = 1; next }
  dump && /^[0-9a-f]+: / { line = substr($0, 11, 48); gsub(/ /, "", line); hex = hex line; next }
  dump && /^(Performing|Signature mechanism is) / {
    name = $1 == "Performing" ? $2 : $4
    sub(/^CKM_/, "", name)
    print name, toupper(hex)
    dump = 0
  }' > "$folder/signatures"

# check OPENSSL-ARGUMENT...: openssl's own word on the signature.
check() {
  echo "$name: $(openssl "$@" 2>&1 | head -n 1)"
}

check_digest() {
  check dgst "$@" -verify "$folder/key" -signature "$folder/signature" "$folder/message"
}

while read -r name hex; do
  printf '%s' "$hex" | basenc --base16 -d > "$folder/signature"
  hash=sha256
  case $name in SHA*) hash=$(echo "${name%%_*}" | tr SHA sha) ;; esac
  case $name in
    RSA_PKCS)
      check pkeyutl -verify -pubin -inkey "$folder/key" -in "$folder/message" \
        -sigfile "$folder/signature" ;;
    *_PSS) check_digest "-$hash" -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest ;;
    *) check_digest "-$hash" ;;
  esac
done < "$folder/signatures"
