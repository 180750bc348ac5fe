#include "token/Attributes.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>

#include "token/Rsa.h"

namespace kestrel::token {

namespace {

template <typename Value>
std::string bytesOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

template <CK_ULONG value>
std::string number(const Object&) {
  return bytesOf(value);
}

template <CK_BBOOL value>
std::string boolean(const Object&) {
  return bytesOf(value);
}

constexpr auto yes = boolean<CK_TRUE>;
constexpr auto no = boolean<CK_FALSE>;

std::string empty(const Object&) {
  return {};
}

template <typename Type>
std::string der(int (*encode)(const Type*, unsigned char**), const Type* object) {
  const int length = encode(object, nullptr);
  std::string value(static_cast<std::size_t>(std::max(length, 0)), '\0');
  auto* to = reinterpret_cast<unsigned char*>(value.data());
  if (length > 0) encode(object, &to);
  return value;
}

// Of the object's certificate, which may be none.
template <auto part>
std::string ofCertificate(const Object& object) {
  const OpensslErrorScope errors;
  const std::string value =
      object.type == CKO_CERTIFICATE ? object.value : certificateValue(object.key.name);
  const auto* from = reinterpret_cast<const unsigned char*>(value.data());
  const CertificateOwner certificate(d2i_X509(nullptr, &from, static_cast<long>(value.size())));
  return certificate == nullptr ? "" : part(certificate.get());
}

constexpr auto subject = ofCertificate<[](const X509* certificate) {
  return der(i2d_X509_NAME, X509_get_subject_name(certificate));
}>;
constexpr auto issuer = ofCertificate<[](const X509* certificate) {
  return der(i2d_X509_NAME, X509_get_issuer_name(certificate));
}>;
constexpr auto serial = ofCertificate<[](const X509* certificate) {
  return der(i2d_ASN1_INTEGER, X509_get0_serialNumber(certificate));
}>;
constexpr auto publicKeyInfo = ofCertificate<[](const X509* certificate) {
  return der<X509_PUBKEY>(i2d_X509_PUBKEY, X509_get_X509_PUBKEY(certificate));
}>;

// The first bytes of the value's SHA-1.
std::string checkValue(const Object& object) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  EVP_Digest(object.value.data(), object.value.size(),
             reinterpret_cast<unsigned char*>(digest.data()), nullptr, EVP_sha1(), nullptr);
  return digest.substr(0, 3);
}

// A big integer: most significant byte first.
template <const char* parameter>
std::string keyNumber(const Object& object) {
  BIGNUM* value = nullptr;
  EVP_PKEY_get_bn_param(keyPair(object.key), parameter, &value);
  std::string bytes(static_cast<std::size_t>(BN_num_bytes(value)), '\0');
  BN_bn2bin(value, reinterpret_cast<unsigned char*>(bytes.data()));
  BN_free(value);
  return bytes;
}

constexpr char modulus[] = OSSL_PKEY_PARAM_RSA_N;
constexpr char exponent[] = OSSL_PKEY_PARAM_RSA_E;

std::string modulusBits(const Object& object) {
  return bytesOf(static_cast<CK_ULONG>(EVP_PKEY_get_bits(keyPair(object.key))));
}

enum Classes : unsigned { certificates = 1, publicKeys = 2, privateKeys = 4, keys = 6, all = 7 };

unsigned classOf(const Object& object) {
  if (object.type == CKO_CERTIFICATE) return certificates;
  return object.type == CKO_PUBLIC_KEY ? publicKeys : privateKeys;
}

struct Attribute {
  CK_ATTRIBUTE_TYPE type;
  unsigned classes;
  std::string (*value)(const Object&);  // null for what stays in the token
};

// Nothing can be changed, and no key does what the module has no function for. That the keys were
// always secret nobody could say: they are in every copy of the module.
constexpr Attribute attributes[] = {
    {CKA_CLASS, all, [](const Object& object) { return bytesOf(object.type); }},
    {CKA_TOKEN, all, yes},
    {CKA_PRIVATE, certificates | publicKeys, no},
    {CKA_PRIVATE, privateKeys, yes},
    {CKA_MODIFIABLE, all, no},
    {CKA_COPYABLE, all, no},
    {CKA_DESTROYABLE, all, no},
    {CKA_LABEL, all, [](const Object& object) { return object.label; }},
    {CKA_ID, all, [](const Object& object) { return object.id; }},
    {CKA_SUBJECT, all, subject},
    {CKA_START_DATE, all, empty},
    {CKA_END_DATE, all, empty},
    {CKA_PUBLIC_KEY_INFO, all, publicKeyInfo},

    {CKA_CERTIFICATE_TYPE, certificates, number<CKC_X_509>},
    {CKA_CERTIFICATE_CATEGORY, certificates, number<0>},
    {CKA_TRUSTED, certificates | publicKeys, no},
    {CKA_VALUE, certificates, [](const Object& object) { return object.value; }},
    {CKA_CHECK_VALUE, certificates, checkValue},
    {CKA_ISSUER, certificates, issuer},
    {CKA_SERIAL_NUMBER, certificates, serial},
    {CKA_URL, certificates, empty},
    {CKA_HASH_OF_SUBJECT_PUBLIC_KEY, certificates, empty},
    {CKA_HASH_OF_ISSUER_PUBLIC_KEY, certificates, empty},
    {CKA_JAVA_MIDP_SECURITY_DOMAIN, certificates, number<0>},

    {CKA_KEY_TYPE, keys, number<CKK_RSA>},
    {CKA_MODULUS, keys, keyNumber<modulus>},
    {CKA_MODULUS_BITS, publicKeys, modulusBits},
    {CKA_PUBLIC_EXPONENT, keys, keyNumber<exponent>},
    {CKA_DERIVE, keys, no},
    {CKA_LOCAL, keys, no},
    {CKA_KEY_GEN_MECHANISM, keys, number<CK_UNAVAILABLE_INFORMATION>},

    {CKA_ENCRYPT, publicKeys, no},
    {CKA_VERIFY, publicKeys, no},
    {CKA_VERIFY_RECOVER, publicKeys, no},
    {CKA_WRAP, publicKeys, no},

    {CKA_SIGN, privateKeys, yes},
    {CKA_SIGN_RECOVER, privateKeys, no},
    {CKA_DECRYPT, privateKeys, yes},
    {CKA_UNWRAP, privateKeys, no},
    {CKA_SENSITIVE, privateKeys, yes},
    {CKA_ALWAYS_SENSITIVE, privateKeys, no},
    {CKA_EXTRACTABLE, privateKeys, no},
    {CKA_NEVER_EXTRACTABLE, privateKeys, no},
    {CKA_WRAP_WITH_TRUSTED, privateKeys, no},
    {CKA_ALWAYS_AUTHENTICATE, privateKeys,
     [](const Object& object) { return bytesOf(CK_BBOOL{object.key.wantsContext}); }},
    {CKA_PRIVATE_EXPONENT, privateKeys, nullptr},
    {CKA_PRIME_1, privateKeys, nullptr},
    {CKA_PRIME_2, privateKeys, nullptr},
    {CKA_EXPONENT_1, privateKeys, nullptr},
    {CKA_EXPONENT_2, privateKeys, nullptr},
    {CKA_COEFFICIENT, privateKeys, nullptr},
};

}  // namespace

CK_RV attributeOf(const Object& object, CK_ATTRIBUTE_TYPE type, std::string& value) {
  const auto* found = std::ranges::find_if(attributes, [&](const Attribute& attribute) {
    return attribute.type == type && (attribute.classes & classOf(object)) != 0;
  });
  if (found == std::end(attributes)) return CKR_ATTRIBUTE_TYPE_INVALID;
  if (found->value == nullptr) return CKR_ATTRIBUTE_SENSITIVE;
  value = found->value(object);
  return CKR_OK;
}

}  // namespace kestrel::token
