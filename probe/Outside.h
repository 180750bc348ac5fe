// The other side of every check of a result: OpenSSL, in a library context of its own. What a
// module does to the one that it shares with this process changes nothing here.
#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <string_view>

namespace kestrel::probe {

// Bytes: keys, data, signatures.
using Bytes = std::string;
using View = std::string_view;

template <auto release>
struct Release {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

using OutsideKey = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

namespace outside {

OSSL_LIB_CTX* context();

// Thrown where OpenSSL itself cannot do what a check needs: the check is not applicable.
[[noreturn]] void fail(const char* what);

Bytes random(std::size_t length);

// From what a token says of its public key: big-endian numbers.
OutsideKey rsaPublicKey(View modulus, View exponent);

// `group` as OpenSSL names it ("P-256"), `point` uncompressed (04 X Y).
OutsideKey ecPublicKey(const char* group, View point);

// "ED25519", "X25519": the public key as it is.
OutsideKey rawPublicKey(const char* type, View key);

// Prime fields, as big-endian numbers: of all DSA keys here, and of all DH keys, which have no
// subprime.
struct FieldGroup {
  Bytes prime, subprime, base;
};
const FieldGroup& dsaGroup();
const FieldGroup& dhGroup();

// By the public value; for an empty one the parameters alone.
OutsideKey dsaKey(View value);
OutsideKey dhPublicKey(View value);

// A new key of OpenSSL's own. `bits` for RSA; `group` for EC; a type with neither otherwise.
OutsideKey newRsaKey(unsigned bits);
OutsideKey newEcKey(const char* group);
OutsideKey newKey(const char* type);
OutsideKey newDsaKey();
OutsideKey newDhKey();

// A big-endian number of a key, by OpenSSL's name ("n", "rsa-factor1", "priv"), `length` bytes with
// leading zeros, or as short as it is for 0.
Bytes number(EVP_PKEY* key, const char* name, std::size_t length = 0);

// The private key as it is, of the types that OpenSSL names "ED25519" and the like.
Bytes rawPrivateKey(EVP_PKEY* key);

// The public point of an EC key, uncompressed.
Bytes point(EVP_PKEY* key);

}  // namespace outside

}  // namespace kestrel::probe
