#include "probe/Outside.h"

#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/rand.h>

#include <stdexcept>

#include "probe/OutsideHandles.h"

namespace kestrel::probe::outside {

namespace {

// A key or parameters, as `selection` has it.
OutsideKey keyOf(const char* type, OSSL_PARAM_BLD* builder, int selection = EVP_PKEY_PUBLIC_KEY) {
  const Parameters parameters(OSSL_PARAM_BLD_to_param(builder));
  const Context making(EVP_PKEY_CTX_new_from_name(context(), type, nullptr));
  EVP_PKEY* key = nullptr;
  if (parameters == nullptr || making == nullptr || EVP_PKEY_fromdata_init(making.get()) != 1 ||
      EVP_PKEY_fromdata(making.get(), &key, selection, parameters.get()) != 1) {
    fail("no key of those numbers");
  }
  return OutsideKey(key);
}

// A key of its own on parameters.
OutsideKey newKeyOn(const OutsideKey& parameters) {
  const Context making(EVP_PKEY_CTX_new_from_pkey(context(), parameters.get(), nullptr));
  EVP_PKEY* key = nullptr;
  if (EVP_PKEY_keygen_init(making.get()) != 1 || EVP_PKEY_generate(making.get(), &key) != 1) {
    fail("no key");
  }
  return OutsideKey(key);
}

constexpr const char* dhGroupName = "ffdhe2048";

// Parameters of DSA: 1024 and 160 bits, which every token takes that does DSA at all.
constexpr const char* dsaPrime =
    "817d8ac50a799422de32764c7953e92bd18c1ab4693ba29f9bde00c306611f64a74ca76a1f42f8a12c15f1b4"
    "1093015b997e081db6489f02e57b94541e4b99985d6b0015abfdaa6f53c6a63fa0ad56cb657993aa5bd14d80"
    "d6159e2a96ea19d07682732d956d523540ca2f05f84a3e9ce9e70eaeb33c1115c18f409f4e27ce87";
constexpr const char* dsaSubprime = "e9616b382fb36b73064c979ba1f85658327b010f";
constexpr const char* dsaBase =
    "79a43b832672b50e47a80de303c2feba90864dc6274cdc0471d19a4935167903a3065d1769b4e9b74c5c0553"
    "ea321b49e151a19a739b322f4e7ac38158c41aec918fcf7f34e1d44a55450c54e7815f48f63d190e2baf9ed6"
    "0abdae442cfebfa05d89ddf7aaf57fb7b709ffa73ec058b694a577b900c4aac28018ae8a4bf21873";

Bytes ofHexadecimal(const char* text) {
  BIGNUM* made = nullptr;
  if (BN_hex2bn(&made, text) == 0) fail("no number");
  const Number owner(made);
  Bytes bytes(static_cast<std::size_t>(BN_num_bytes(made)), '\0');
  BN_bn2bin(made, room(bytes));
  return bytes;
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
  return keyOf("RSA", builder.get());
}

OutsideKey ecPublicKey(const char* group, View point) {
  const Builder builder(OSSL_PARAM_BLD_new());
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, group, 0);
  OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(),
                                   point.size());
  return keyOf("EC", builder.get());
}

OutsideKey rawPublicKey(const char* type, View key) {
  OutsideKey made(EVP_PKEY_new_raw_public_key_ex(context(), type, nullptr, raw(key), key.size()));
  if (made == nullptr) fail("no public key");
  return made;
}

const FieldGroup& dsaGroup() {
  static const FieldGroup group{ofHexadecimal(dsaPrime), ofHexadecimal(dsaSubprime),
                                ofHexadecimal(dsaBase)};
  return group;
}

const FieldGroup& dhGroup() {
  static const FieldGroup group = [] {
    const OutsideKey key = newDhKey();
    return FieldGroup{
        number(key.get(), OSSL_PKEY_PARAM_FFC_P), {}, number(key.get(), OSSL_PKEY_PARAM_FFC_G)};
  }();
  return group;
}

OutsideKey dsaKey(View value) {
  const Builder builder(OSSL_PARAM_BLD_new());
  const FieldGroup& group = dsaGroup();
  const Number p = numberOf(group.prime), q = numberOf(group.subprime), g = numberOf(group.base);
  const Number y = numberOf(value);
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, p.get());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_Q, q.get());
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, g.get());
  if (value.empty()) return keyOf("DSA", builder.get(), EVP_PKEY_KEY_PARAMETERS);
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, y.get());
  return keyOf("DSA", builder.get());
}

OutsideKey newDsaKey() {
  return newKeyOn(dsaKey({}));
}

OutsideKey dhPublicKey(View value) {
  const Builder builder(OSSL_PARAM_BLD_new());
  const Number y = numberOf(value);
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, dhGroupName, 0);
  OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, y.get());
  return keyOf("DH", builder.get());
}

OutsideKey newDhKey() {
  const Builder builder(OSSL_PARAM_BLD_new());
  OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, dhGroupName, 0);
  return newKeyOn(keyOf("DH", builder.get(), EVP_PKEY_KEY_PARAMETERS));
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

Bytes rawPrivateKey(EVP_PKEY* key) {
  Bytes bytes(64, '\0');
  std::size_t length = bytes.size();
  require(EVP_PKEY_get_raw_private_key(key, room(bytes), &length), "no private key");
  bytes.resize(length);
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
