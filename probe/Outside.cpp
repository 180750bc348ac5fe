#include "probe/Outside.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <stdexcept>

namespace kestrel::probe::outside {

namespace {

using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using Number = std::unique_ptr<BIGNUM, Release<BN_clear_free>>;
using Builder = std::unique_ptr<OSSL_PARAM_BLD, Release<OSSL_PARAM_BLD_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, Release<OSSL_PARAM_free>>;

const unsigned char* data(View bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

Number numberOf(View bytes) {
  return Number(BN_bin2bn(data(bytes), static_cast<int>(bytes.size()), nullptr));
}

OutsideKey publicKey(const char* type, OSSL_PARAM_BLD* builder) {
  const Parameters parameters(OSSL_PARAM_BLD_to_param(builder));
  const Context making(EVP_PKEY_CTX_new_from_name(context(), type, nullptr));
  EVP_PKEY* key = nullptr;
  if (parameters == nullptr || making == nullptr || EVP_PKEY_fromdata_init(making.get()) != 1 ||
      EVP_PKEY_fromdata(making.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
    fail("no public key");
  }
  return OutsideKey(key);
}

}  // namespace

OSSL_LIB_CTX* context() {
  static OSSL_LIB_CTX* const own = [] {
    OSSL_LIB_CTX* const made = OSSL_LIB_CTX_new();
    // Old algorithms are in a provider that need not be there.
    OSSL_PROVIDER_load(made, "default");
    OSSL_PROVIDER_load(made, "legacy");
    ERR_clear_error();
    return made;
  }();
  return own;
}

void fail(const char* what) {
  ERR_clear_error();
  throw std::runtime_error(std::string("OpenSSL: ") + what);
}

Bytes random(std::size_t length) {
  Bytes bytes(length, '\0');
  if (RAND_bytes_ex(context(), reinterpret_cast<unsigned char*>(bytes.data()), length, 0) != 1) {
    fail("no random numbers");
  }
  return bytes;
}

OutsideKey rsaPublicKey(View modulus, View exponent) {
  const Builder builder(OSSL_PARAM_BLD_new());
  const Number n = numberOf(modulus), e = numberOf(exponent);
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get());
  return publicKey("RSA", builder.get());
}

OutsideKey ecPublicKey(const char* group, View point) {
  const Builder builder(OSSL_PARAM_BLD_new());
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0);
  OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                   point.size());
  return publicKey("EC", builder.get());
}

OutsideKey rawPublicKey(const char* type, View key) {
  OutsideKey made(EVP_PKEY_new_raw_public_key_ex(context(), type, nullptr, data(key), key.size()));
  if (made == nullptr) fail("no public key");
  return made;
}

OutsideKey newRsaKey(unsigned bits) {
  OutsideKey key(EVP_PKEY_Q_keygen(context(), nullptr, "RSA", std::size_t{bits}));
  if (key == nullptr) fail("no RSA key");
  return key;
}

OutsideKey newEcKey(const char* group) {
  OutsideKey key(EVP_PKEY_Q_keygen(context(), nullptr, "EC", group));
  if (key == nullptr) fail("no EC key");
  return key;
}

OutsideKey newKey(const char* type) {
  OutsideKey key(EVP_PKEY_Q_keygen(context(), nullptr, type));
  if (key == nullptr) fail("no key");
  return key;
}

Bytes number(EVP_PKEY* key, const char* name, std::size_t length) {
  BIGNUM* found = nullptr;
  if (EVP_PKEY_get_bn_param(key, name, &found) != 1) fail("no such number in a key");
  const Number owner(found);
  Bytes bytes(length == 0 ? static_cast<std::size_t>(BN_num_bytes(found)) : length, '\0');
  if (BN_bn2binpad(found, reinterpret_cast<unsigned char*>(bytes.data()),
                   static_cast<int>(bytes.size())) < 0) {
    fail("a number of a key is longer than it may be");
  }
  return bytes;
}

Bytes point(EVP_PKEY* key) {
  Bytes bytes(200, '\0');
  std::size_t length = 0;
  if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY,
                                      reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(),
                                      &length) != 1) {
    fail("no public point in a key");
  }
  bytes.resize(length);
  return bytes;
}

}  // namespace kestrel::probe::outside
