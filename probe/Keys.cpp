#include "probe/Keys.h"

#include <openssl/core_names.h>

#include "probe/Values.h"

namespace kestrel::probe {

using namespace std::string_view_literals;

constexpr Curve p256{"P-256", "\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07"sv, 256,
                     CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve p384{"P-384", "\x06\x05\x2b\x81\x04\x00\x22"sv, 384, CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve p521{"P-521", "\x06\x05\x2b\x81\x04\x00\x23"sv, 521, CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve ed25519{"ED25519", "\x06\x03\x2b\x65\x70"sv, 255, CKM_EC_EDWARDS_KEY_PAIR_GEN,
                        CKK_EC_EDWARDS};
constexpr Curve x25519{"X25519", "\x06\x03\x2b\x65\x6e"sv, 255, CKM_EC_MONTGOMERY_KEY_PAIR_GEN,
                       CKK_EC_MONTGOMERY};

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

struct Generation {
  CK_KEY_TYPE type;
  CK_MECHANISM_TYPE mechanism;
  bool hasLength;
};

constexpr Generation generations[] = {
    {CKK_AES, CKM_AES_KEY_GEN, true},    {CKK_GENERIC_SECRET, CKM_GENERIC_SECRET_KEY_GEN, true},
    {CKK_DES, CKM_DES_KEY_GEN, false},   {CKK_DES2, CKM_DES2_KEY_GEN, false},
    {CKK_DES3, CKM_DES3_KEY_GEN, false},
};

[[noreturn]] void refuse() {
  const Caller& caller = Caller::current();
  throw NoKey{fmt::format("no key: {} {}", nameOf(caller.lastFunction),
                          valueText("CKR_", caller.lastValue))};
}

// A point as a token gives it: DER with the octets in it, or the octets alone.
View octets(View value, std::size_t length) {
  if (value.size() == length) return value;
  return value.size() > length ? value.substr(value.size() - length) : View();
}

}  // namespace

CK_OBJECT_HANDLE Keys::create(CK_SESSION_HANDLE session, const Template& attributes) const {
  auto* const handle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  if (p11::C_CreateObject(session, attributes.in(), attributes.count(), handle) != CKR_OK) {
    refuse();
  }
  return *handle;
}

CK_OBJECT_HANDLE Keys::importSecret(CK_SESSION_HANDLE session, CK_KEY_TYPE type, View value,
                                    Usage usage) {
  const MemoryScope scope(memory_);
  Template attributes(memory_);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, type)
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, false)
      .add(CKA_EXTRACTABLE, true)
      .add(CKA_VALUE, value);
  addUsage(attributes, usage);
  return create(session, attributes);
}

SecretKey Keys::makeSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage) {
  const MemoryScope scope(memory_);
  for (const Generation& row : generations) {
    if (row.type != type || !token_.lists(row.mechanism, CKF_GENERATE)) continue;
    Template attributes(memory_);
    attributes.add(CKA_TOKEN, false).add(CKA_SENSITIVE, false).add(CKA_EXTRACTABLE, true);
    if (row.hasLength) attributes.add(CKA_VALUE_LEN, length);
    addUsage(attributes, usage);
    auto* const mechanism = memory_.in(CK_MECHANISM{row.mechanism, nullptr, 0});
    auto* const handle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
    if (p11::C_GenerateKey(session_, mechanism, attributes.in(), attributes.count(), handle) !=
        CKR_OK) {
      continue;
    }
    if (std::optional<Bytes> value = readAttribute(session_, *handle, CKA_VALUE)) {
      return {*handle, *std::move(value)};
    }
  }
  SecretKey key{CK_INVALID_HANDLE, outside::random(length)};
  key.handle = importSecret(session_, type, key.value, usage);
  return key;
}

const SecretKey& Keys::secret(CK_KEY_TYPE type, CK_ULONG length, Usage usage) {
  const std::tuple place(type, length, usage);
  const auto known = secrets_.find(place);
  if (known != secrets_.end()) return known->second;
  return secrets_.emplace(place, makeSecret(type, length, usage)).first->second;
}

KeyPair Keys::makePair(CK_MECHANISM_TYPE generation, Template& publicKey, Usage usage) {
  publicKey.add(CKA_TOKEN, false);
  addUsage(publicKey, partOf(usage, true));
  Template privateKey(memory_);
  privateKey.add(CKA_TOKEN, false);
  addUsage(privateKey, partOf(usage, false));
  auto* const mechanism = memory_.in(CK_MECHANISM{generation, nullptr, 0});
  auto* const publicHandle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  auto* const privateHandle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  if (p11::C_GenerateKeyPair(session_, mechanism, publicKey.in(), publicKey.count(),
                             privateKey.in(), privateKey.count(), publicHandle,
                             privateHandle) != CKR_OK) {
    refuse();
  }
  return {*publicHandle, *privateHandle, nullptr};
}

OutsideKey Keys::readRsa(CK_OBJECT_HANDLE publicKey) const {
  const std::optional<Bytes> modulus = readAttribute(session_, publicKey, CKA_MODULUS);
  const std::optional<Bytes> exponent = readAttribute(session_, publicKey, CKA_PUBLIC_EXPONENT);
  if (!modulus || !exponent) refuse();
  return outside::rsaPublicKey(*modulus, *exponent);
}

OutsideKey Keys::readEc(CK_OBJECT_HANDLE publicKey, const Curve& curve) const {
  const std::optional<Bytes> point = readAttribute(session_, publicKey, CKA_EC_POINT);
  if (!point) refuse();
  if (curve.type != CKK_EC) return outside::rawPublicKey(curve.name, octets(*point, 32));
  return outside::ecPublicKey(curve.name, octets(*point, 1 + 2 * ((curve.bits + 7) / 8)));
}

const KeyPair& Keys::rsa(Usage usage, CK_ULONG bits) {
  const std::tuple place(CK_KEY_TYPE{CKK_RSA}, bits, usage);
  const auto known = pairs_.find(place);
  if (known != pairs_.end()) return known->second;
  const MemoryScope scope(memory_);
  Template publicKey(memory_);
  publicKey.add(CKA_MODULUS_BITS, bits).add(CKA_PUBLIC_EXPONENT, "\x01\x00\x01"sv);
  KeyPair pair = makePair(CKM_RSA_PKCS_KEY_PAIR_GEN, publicKey, usage);
  pair.outside = readRsa(pair.publicKey);
  return pairs_.emplace(place, std::move(pair)).first->second;
}

const KeyPair& Keys::ec(const Curve& curve, Usage usage) {
  const std::tuple place(curve.type, curve.bits, usage);
  const auto known = pairs_.find(place);
  if (known != pairs_.end()) return known->second;
  const MemoryScope scope(memory_);
  Template publicKey(memory_);
  publicKey.add(CKA_EC_PARAMS, curve.parameters);
  KeyPair pair = makePair(curve.generation, publicKey, usage);
  pair.outside = readEc(pair.publicKey, curve);
  return pairs_.emplace(place, std::move(pair)).first->second;
}

CK_OBJECT_HANDLE Keys::importPublic(CK_SESSION_HANDLE session, EVP_PKEY* key, Usage usage) {
  const MemoryScope scope(memory_);
  Template attributes(memory_);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_PUBLIC_KEY}).add(CKA_TOKEN, false);
  if (EVP_PKEY_is_a(key, "RSA") == 1) {
    attributes.add(CKA_KEY_TYPE, CK_ULONG{CKK_RSA})
        .add(CKA_MODULUS, outside::number(key, OSSL_PKEY_PARAM_RSA_N))
        .add(CKA_PUBLIC_EXPONENT, outside::number(key, OSSL_PKEY_PARAM_RSA_E));
  } else {
    const Bytes point = outside::point(key);
    for (const Curve* curve : {&p256, &p384, &p521, &ed25519, &x25519}) {
      if (EVP_PKEY_is_a(key, curve->name) == 0 &&
          (curve->type != CKK_EC || EVP_PKEY_get_bits(key) != static_cast<int>(curve->bits))) {
        continue;
      }
      Bytes der{'\x04'};
      if (point.size() > 127) der += '\x81';
      der += static_cast<char>(point.size());
      attributes.add(CKA_KEY_TYPE, curve->type)
          .add(CKA_EC_PARAMS, curve->parameters)
          .add(CKA_EC_POINT, der + point);
      break;
    }
  }
  addUsage(attributes, partOf(usage, true));
  return create(session, attributes);
}

}  // namespace kestrel::probe
