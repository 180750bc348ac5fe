#include "probe/KeyAttributes.h"

#include <openssl/core_names.h>

#include <algorithm>
#include <bit>

namespace kestrel::probe {

namespace {

struct UsageRow {
  Usage usage;
  CK_ATTRIBUTE_TYPE attribute;
  bool isPublic;  // which key of a pair it belongs to
};

constexpr UsageRow usageRows[] = {
    {canEncrypt, CKA_ENCRYPT, true},
    {canDecrypt, CKA_DECRYPT, false},
    {canSign, CKA_SIGN, false},
    {canVerify, CKA_VERIFY, true},
    {canWrap, CKA_WRAP, true},
    {canUnwrap, CKA_UNWRAP, false},
    {canDerive, CKA_DERIVE, false},
    {canSignRecover, CKA_SIGN_RECOVER, false},
    {canVerifyRecover, CKA_VERIFY_RECOVER, true},
};

struct NumberRow {
  CK_KEY_TYPE type;
  CK_ATTRIBUTE_TYPE attribute;
  const char* name;  // OpenSSL's
  bool isPublic, isPrivate;
};

constexpr NumberRow numberRows[] = {
    {CKK_RSA, CKA_MODULUS, OSSL_PKEY_PARAM_RSA_N, true, true},
    {CKK_RSA, CKA_PUBLIC_EXPONENT, OSSL_PKEY_PARAM_RSA_E, true, true},
    {CKK_RSA, CKA_PRIVATE_EXPONENT, OSSL_PKEY_PARAM_RSA_D, false, true},
    {CKK_RSA, CKA_PRIME_1, OSSL_PKEY_PARAM_RSA_FACTOR1, false, true},
    {CKK_RSA, CKA_PRIME_2, OSSL_PKEY_PARAM_RSA_FACTOR2, false, true},
    {CKK_RSA, CKA_EXPONENT_1, OSSL_PKEY_PARAM_RSA_EXPONENT1, false, true},
    {CKK_RSA, CKA_EXPONENT_2, OSSL_PKEY_PARAM_RSA_EXPONENT2, false, true},
    {CKK_RSA, CKA_COEFFICIENT, OSSL_PKEY_PARAM_RSA_COEFFICIENT1, false, true},
    {CKK_DSA, CKA_PRIME, OSSL_PKEY_PARAM_FFC_P, true, true},
    {CKK_DSA, CKA_SUBPRIME, OSSL_PKEY_PARAM_FFC_Q, true, true},
    {CKK_DSA, CKA_BASE, OSSL_PKEY_PARAM_FFC_G, true, true},
    {CKK_DSA, CKA_VALUE, OSSL_PKEY_PARAM_PUB_KEY, true, false},
    {CKK_DSA, CKA_VALUE, OSSL_PKEY_PARAM_PRIV_KEY, false, true},
    {CKK_DH, CKA_PRIME, OSSL_PKEY_PARAM_FFC_P, true, true},
    {CKK_DH, CKA_BASE, OSSL_PKEY_PARAM_FFC_G, true, true},
    {CKK_DH, CKA_VALUE, OSSL_PKEY_PARAM_PUB_KEY, true, false},
    {CKK_DH, CKA_VALUE, OSSL_PKEY_PARAM_PRIV_KEY, false, true},
};

const Curve* curveOf(EVP_PKEY* key) {
  const bool isEc = EVP_PKEY_is_a(key, "EC") == 1;
  for (const Curve* curve : {&p256, &p384, &p521, &ed25519, &ed448, &x25519, &x448}) {
    const bool same =
        isEc ? curve->type == CKK_EC && EVP_PKEY_get_bits(key) == static_cast<int>(curve->bits)
             : EVP_PKEY_is_a(key, curve->name) == 1;
    if (same) return curve;
  }
  return nullptr;
}

bool addNumbers(Template& attributes, EVP_PKEY* key, bool isPublic) {
  const CK_KEY_TYPE type = EVP_PKEY_is_a(key, "RSA") == 1   ? CKK_RSA
                           : EVP_PKEY_is_a(key, "DSA") == 1 ? CKK_DSA
                                                            : CKK_DH;
  attributes.add(CKA_KEY_TYPE, type);
  for (const NumberRow& row : numberRows) {
    if (row.type != type || !(isPublic ? row.isPublic : row.isPrivate)) continue;
    attributes.add(row.attribute, outside::number(key, row.name));
  }
  return true;
}

// Forms 1 and 3 write the point as it is, forms 2 and 3 the curve's name.
bool addCurve(Template& attributes, const Curve& curve, unsigned form) {
  const bool byName = (form & 2) != 0;
  if (form > 0 && curve.type == CKK_EC) return false;
  attributes.add(CKA_KEY_TYPE, curve.type)
      .add(CKA_EC_PARAMS, byName ? curve.otherParameters : curve.parameters);
  return true;
}

}  // namespace

void addUsage(Template& attributes, Usage usage) {
  for (const UsageRow& row : usageRows) {
    if ((usage & row.usage) != 0) attributes.add(row.attribute, true);
  }
}

Usage partOf(Usage usage, bool isPublic) {
  Usage part = 0;
  for (const UsageRow& row : usageRows) {
    if (row.isPublic == isPublic) part |= usage & row.usage;
  }
  return part;
}

Bytes der(char tag, View content) {
  Bytes bytes{tag};
  if (content.size() > 127) bytes += '\x81';
  bytes += static_cast<char>(content.size());
  return bytes.append(content);
}

bool addPublicNumbers(Template& attributes, EVP_PKEY* key, unsigned form) {
  const Curve* const curve = curveOf(key);
  if (curve == nullptr) return form == 0 && addNumbers(attributes, key, true);
  if (!addCurve(attributes, *curve, form)) return false;
  const Bytes point = outside::point(key);
  attributes.add(CKA_EC_POINT, (form & 1) != 0 ? point : der(4, point));
  return true;
}

bool addPrivateNumbers(Template& attributes, EVP_PKEY* key, unsigned form) {
  const Curve* const curve = curveOf(key);
  if (curve == nullptr) return form == 0 && addNumbers(attributes, key, false);
  if ((form & 1) != 0 || !addCurve(attributes, *curve, form)) return false;
  attributes.add(CKA_VALUE, curve->type == CKK_EC ? outside::number(key, OSSL_PKEY_PARAM_PRIV_KEY,
                                                                    (curve->bits + 7) / 8)
                                                  : outside::rawPrivateKey(key));
  return true;
}

void addGenerationAttributes(Template& publicKey, CK_KEY_TYPE type, CK_ULONG bits,
                             View curveParameters) {
  using namespace std::string_view_literals;
  if (type == CKK_RSA) {
    publicKey.add(CKA_MODULUS_BITS, bits).add(CKA_PUBLIC_EXPONENT, "\x01\x00\x01"sv);
  } else if (type == CKK_DSA || type == CKK_DH) {
    const outside::FieldGroup& group = type == CKK_DSA ? outside::dsaGroup() : outside::dhGroup();
    publicKey.add(CKA_PRIME, group.prime).add(CKA_BASE, group.base);
    if (type == CKK_DSA) publicKey.add(CKA_SUBPRIME, group.subprime);
  } else {
    publicKey.add(CKA_EC_PARAMS, curveParameters);
  }
}

bool isDes(CK_KEY_TYPE type) {
  return type == CKK_DES || type == CKK_DES2 || type == CKK_DES3;
}

bool hasOddParity(View value) {
  return std::ranges::all_of(
      value, [](char byte) { return std::popcount(static_cast<unsigned char>(byte)) % 2 == 1; });
}

Bytes withOddParity(Bytes value) {
  for (char& byte : value) {
    if (!hasOddParity(View(&byte, 1))) byte = static_cast<char>(byte ^ 1);
  }
  return value;
}

}  // namespace kestrel::probe
