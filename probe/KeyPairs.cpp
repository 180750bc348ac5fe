// Where key pairs come from.
#include <openssl/x509.h>

#include "probe/KeyAttributes.h"
#include "probe/Values.h"

namespace kestrel::probe {

using namespace std::string_view_literals;

constexpr Curve p256{"P-256", "\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07"sv, 256,
                     CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve p384{"P-384", "\x06\x05\x2b\x81\x04\x00\x22"sv, 384, CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve p521{"P-521", "\x06\x05\x2b\x81\x04\x00\x23"sv, 521, CKM_EC_KEY_PAIR_GEN, CKK_EC};
constexpr Curve ed25519{"ED25519",
                        "\x06\x03\x2b\x65\x70"sv,
                        255,
                        CKM_EC_EDWARDS_KEY_PAIR_GEN,
                        CKK_EC_EDWARDS,
                        "\x13\x0c"
                        "edwards25519"sv};
constexpr Curve ed448{"ED448",
                      "\x06\x03\x2b\x65\x71"sv,
                      448,
                      CKM_EC_EDWARDS_KEY_PAIR_GEN,
                      CKK_EC_EDWARDS,
                      "\x13\x0a"
                      "edwards448"sv};
constexpr Curve x25519{"X25519",
                       "\x06\x03\x2b\x65\x6e"sv,
                       255,
                       CKM_EC_MONTGOMERY_KEY_PAIR_GEN,
                       CKK_EC_MONTGOMERY,
                       "\x13\x0a"
                       "curve25519"sv};
constexpr Curve x448{"X448",
                     "\x06\x03\x2b\x65\x6f"sv,
                     448,
                     CKM_EC_MONTGOMERY_KEY_PAIR_GEN,
                     CKK_EC_MONTGOMERY,
                     "\x13\x08"
                     "curve448"sv};

namespace {

using Certificate = std::unique_ptr<X509, Release<X509_free>>;

[[noreturn]] void refuse() {
  const Caller& caller = Caller::current();
  throw NoKey{fmt::format("no key pair: {} {}", nameOf(caller.lastFunction),
                          valueText("CKR_", caller.lastValue))};
}

// A point as a token gives it: DER with the octets in it, or the octets alone.
View octets(View value, std::size_t length) {
  return value.size() > length ? value.substr(value.size() - length) : value;
}

std::size_t pointLength(const Curve& curve) {
  const std::size_t field = (curve.bits + 7) / 8;
  if (curve.type == CKK_EC) return 1 + 2 * field;
  return curve.bits == 448 && curve.type == CKK_EC_EDWARDS ? 57 : field;
}

OutsideKey newOutside(CK_KEY_TYPE type, CK_ULONG bits, const Curve* curve) {
  switch (type) {
    case CKK_RSA:
      return outside::newRsaKey(static_cast<unsigned>(bits));
    case CKK_DSA:
      return outside::newDsaKey();
    case CKK_DH:
      return outside::newDhKey();
    case CKK_EC:
      return outside::newEcKey(curve->name);
    default:
      return outside::newKey(curve->name);
  }
}

OutsideKey keyOfCertificate(View bytes) {
  const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
  const Certificate certificate(d2i_X509(nullptr, &at, static_cast<long>(bytes.size())));
  return OutsideKey(certificate == nullptr ? nullptr : X509_get_pubkey(certificate.get()));
}

// What a key may not do is what its attribute denies; a token need not tell.
bool permits(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key, Usage usage) {
  constexpr std::pair<Usage, CK_ATTRIBUTE_TYPE> rows[] = {
      {canDecrypt, CKA_DECRYPT}, {canSign, CKA_SIGN},     {canSignRecover, CKA_SIGN_RECOVER},
      {canUnwrap, CKA_UNWRAP},   {canDerive, CKA_DERIVE},
  };
  for (const auto& [bit, attribute] : rows) {
    if ((usage & bit) != 0 && readNumber(session, key, attribute).value_or(CK_TRUE) == CK_FALSE) {
      return false;
    }
  }
  return true;
}

}  // namespace

const KeyPair& Keys::rsa(Usage usage, CK_ULONG bits) {
  return pair({CKK_RSA, bits, CKM_RSA_PKCS_KEY_PAIR_GEN, usage, nullptr});
}

const KeyPair& Keys::ec(const Curve& curve, Usage usage) {
  return pair({curve.type, curve.bits, curve.generation, usage, &curve});
}

const KeyPair& Keys::dsa(Usage usage) {
  return pair({CKK_DSA, 1024, CKM_DSA_KEY_PAIR_GEN, usage, nullptr});
}

const KeyPair& Keys::dh(Usage usage) {
  return pair({CKK_DH, 2048, CKM_DH_PKCS_KEY_PAIR_GEN, usage, nullptr});
}

const KeyPair& Keys::pair(const Wanted& wanted) {
  const std::tuple place(wanted.type, wanted.bits, wanted.usage);
  const auto known = pairs_.find(place);
  if (known != pairs_.end()) return known->second;
  const MemoryScope scope(memory_);
  std::string why;
  for (const auto way : {&Keys::generate, &Keys::import, &Keys::find}) {
    try {
      return pairs_.emplace(place, (this->*way)(wanted)).first->second;
    } catch (const NoKey& none) {
      if (why.empty()) why = none.why;
    }
  }
  throw NoKey{why};
}

KeyPair Keys::generate(const Wanted& wanted) {
  if (!token_.lists(wanted.generation, CKF_GENERATE_KEY_PAIR)) {
    throw NoKey{"no key pair: none is generated, taken from outside or there"};
  }
  auto* const mechanism = memory_.in(CK_MECHANISM{wanted.generation, nullptr, 0});
  Template privateKey(memory_);
  privateKey.add(CKA_TOKEN, false);
  addUsage(privateKey, partOf(wanted.usage, false));
  for (const bool otherParameters : {false, true}) {
    Template publicKey(memory_);
    publicKey.add(CKA_TOKEN, false);
    addUsage(publicKey, partOf(wanted.usage, true));
    if (otherParameters && (wanted.curve == nullptr || wanted.curve->otherParameters.empty())) {
      break;
    }
    addGenerationAttributes(publicKey, wanted.type, wanted.bits,
                            wanted.curve == nullptr ? View()
                            : otherParameters       ? wanted.curve->otherParameters
                                                    : wanted.curve->parameters);
    auto* const handles = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE, 2);
    if (p11::C_GenerateKeyPair(session_, mechanism, publicKey.in(), publicKey.count(),
                               privateKey.in(), privateKey.count(), handles,
                               handles + 1) == CKR_OK) {
      return {handles[0], handles[1], readPublic(wanted, handles[0])};
    }
  }
  refuse();
}

KeyPair Keys::import(const Wanted& wanted) {
  OutsideKey key = newOutside(wanted.type, wanted.bits, wanted.curve);
  for (unsigned form = 0; form < curveForms; ++form) {
    Template attributes(memory_);
    attributes.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY}).add(CKA_TOKEN, false);
    if (!addPrivateNumbers(attributes, key.get(), form)) continue;
    addUsage(attributes, partOf(wanted.usage, false));
    auto* const handle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
    if (p11::C_CreateObject(session_, attributes.in(), attributes.count(), handle) != CKR_OK) {
      continue;
    }
    const CK_OBJECT_HANDLE publicKey = importPublic(session_, key.get(), wanted.usage);
    return {publicKey, *handle, std::move(key)};
  }
  refuse();
}

KeyPair Keys::find(const Wanted& wanted) {
  constexpr std::size_t enough = 32;
  Template privateKeys(memory_);
  privateKeys.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY});
  for (const CK_OBJECT_HANDLE key : findObjects(session_, privateKeys, enough)) {
    if (readNumber(session_, key, CKA_KEY_TYPE).value_or(wanted.type) != wanted.type ||
        !permits(session_, key, wanted.usage)) {
      continue;
    }
    KeyPair found = pairOf(wanted, key);
    if (found.outside == nullptr) continue;
    wantLogin_[key] =
        readNumber(session_, key, CKA_ALWAYS_AUTHENTICATE).value_or(CK_FALSE) == CK_TRUE;
    return found;
  }
  throw NoKey{"no key pair: none is on the token"};
}

// A private key with the public one or the certificate that has its CKA_ID.
KeyPair Keys::pairOf(const Wanted& wanted, CK_OBJECT_HANDLE privateKey) {
  KeyPair found{CK_INVALID_HANDLE, privateKey, nullptr};
  const std::optional<Bytes> id = readAttribute(session_, privateKey, CKA_ID);
  for (const CK_ULONG kind : {CKO_PUBLIC_KEY, CKO_CERTIFICATE}) {
    Template partners(memory_);
    partners.add(CKA_CLASS, kind);
    if (id) partners.add(CKA_ID, *id);
    for (const CK_OBJECT_HANDLE partner : findObjects(session_, partners, 1)) {
      try {
        found.outside =
            kind == CKO_PUBLIC_KEY
                ? readPublic(wanted, partner)
                : keyOfCertificate(readAttribute(session_, partner, CKA_VALUE).value_or(""));
        if (kind == CKO_PUBLIC_KEY) found.publicKey = partner;
        if (found.outside != nullptr && kind == CKO_CERTIFICATE) {
          found.publicKey = importPublic(session_, found.outside.get(), wanted.usage);
        }
      } catch (const NoKey&) {  // the private key can do its part nevertheless
      } catch (const std::runtime_error&) {
      }
    }
    if (found.outside != nullptr) break;
  }
  const char* const type = wanted.type == CKK_RSA   ? "RSA"
                           : wanted.type == CKK_DSA ? "DSA"
                           : wanted.type == CKK_DH  ? "DH"
                           : wanted.type == CKK_EC  ? "EC"
                                                    : wanted.curve->name;
  const bool fits = found.outside != nullptr && EVP_PKEY_is_a(found.outside.get(), type) == 1 &&
                    (wanted.type != CKK_EC ||
                     EVP_PKEY_get_bits(found.outside.get()) == static_cast<int>(wanted.bits));
  if (!fits) found.outside = nullptr;
  return found;
}

OutsideKey Keys::readPublic(const Wanted& wanted, CK_OBJECT_HANDLE publicKey) const {
  const auto read = [&](CK_ATTRIBUTE_TYPE type) {
    const std::optional<Bytes> value = readAttribute(session_, publicKey, type);
    if (!value) refuse();
    return *value;
  };
  switch (wanted.type) {
    case CKK_RSA:
      return outside::rsaPublicKey(read(CKA_MODULUS), read(CKA_PUBLIC_EXPONENT));
    case CKK_DSA:
      return outside::dsaKey(read(CKA_VALUE));
    case CKK_DH:
      return outside::dhPublicKey(read(CKA_VALUE));
    default: {
      const Bytes point = read(CKA_EC_POINT);
      const View inner = octets(point, pointLength(*wanted.curve));
      return wanted.type == CKK_EC ? outside::ecPublicKey(wanted.curve->name, inner)
                                   : outside::rawPublicKey(wanted.curve->name, inner);
    }
  }
}

}  // namespace kestrel::probe
