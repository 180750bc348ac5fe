#include "probe/Keys.h"

#include "probe/KeyAttributes.h"
#include "probe/OutsidePublic.h"
#include "probe/Values.h"

namespace kestrel::probe {

namespace {

struct Generation {
  CK_KEY_TYPE type;
  CK_MECHANISM_TYPE mechanism;
  bool hasLength;
};

constexpr Generation generations[] = {
    {CKK_AES, CKM_AES_KEY_GEN, true},
    {CKK_GENERIC_SECRET, CKM_GENERIC_SECRET_KEY_GEN, true},
    {CKK_DES, CKM_DES_KEY_GEN, false},
    {CKK_DES2, CKM_DES2_KEY_GEN, false},
    {CKK_DES3, CKM_DES3_KEY_GEN, false},
    {CKK_AES_XTS, CKM_AES_XTS_KEY_GEN, true},
    {CKK_CAMELLIA, CKM_CAMELLIA_KEY_GEN, true},
    {CKK_ARIA, CKM_ARIA_KEY_GEN, true},
    {CKK_SEED, CKM_SEED_KEY_GEN, false},
    {CKK_CHACHA20, CKM_CHACHA20_KEY_GEN, false},
    {CKK_POLY1305, CKM_POLY1305_KEY_GEN, false},
};

[[noreturn]] void refuse() {
  const Caller& caller = Caller::current();
  throw NoKey{fmt::format("no key: {} {}", nameOf(caller.lastFunction),
                          valueText("CKR_", caller.lastValue))};
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

// Generated, and its value known: read, or wrapped for OpenSSL.
std::optional<SecretKey> Keys::generateSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage) {
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
    std::optional<Bytes> value = readAttribute(session_, *handle, CKA_VALUE);
    if (!value) value = reveal(*handle);
    if (value && value->size() == length) return SecretKey{*handle, *std::move(value)};
  }
  return std::nullopt;
}

// A key that may leave the token, but not be read: OpenSSL is who it is wrapped for.
std::optional<Bytes> Keys::reveal(CK_OBJECT_HANDLE secret) {
  if (!token_.lists(CKM_RSA_PKCS, CKF_WRAP)) return std::nullopt;
  try {
    const CK_OBJECT_HANDLE publicKey = importPublic(session_, outsideRsa(), canWrap);
    auto* const mechanism = memory_.in(CK_MECHANISM{CKM_RSA_PKCS, nullptr, 0});
    const auto length = static_cast<CK_ULONG>(EVP_PKEY_get_size(outsideRsa()));
    CK_BYTE* const wrapped = memory_.bytes(length);
    auto* const written = memory_.out<CK_ULONG>(length);
    const CK_RV result = p11::C_WrapKey(session_, mechanism, publicKey, secret, wrapped, written);
    p11::C_DestroyObject(session_, publicKey);
    if (result != CKR_OK) return std::nullopt;
    return outside::decrypt(outsideRsa(), {outside::RsaForm::Kind::pkcs1},
                            View(reinterpret_cast<const char*>(wrapped), *written));
  } catch (const NoKey&) {
  } catch (const std::runtime_error&) {
  }
  return std::nullopt;
}

SecretKey Keys::makeSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage) {
  const MemoryScope scope(memory_);
  if (std::optional<SecretKey> key = generateSecret(type, length, usage)) return *std::move(key);
  SecretKey key{CK_INVALID_HANDLE, outside::random(length)};
  if (isDes(type)) key.value = withOddParity(key.value);
  key.handle = importSecret(session_, type, key.value, usage);
  return key;
}

const SecretKey& Keys::secret(CK_KEY_TYPE type, CK_ULONG length, Usage usage) {
  const std::tuple place(type, length, usage);
  const auto known = secrets_.find(place);
  if (known != secrets_.end()) return known->second;
  return secrets_.emplace(place, makeSecret(type, length, usage)).first->second;
}

EVP_PKEY* Keys::outsideRsa() {
  if (outsideRsa_ == nullptr) outsideRsa_ = outside::newRsaKey(2048);
  return outsideRsa_.get();
}

CK_OBJECT_HANDLE Keys::importPublic(CK_SESSION_HANDLE session, EVP_PKEY* key, Usage usage) {
  const MemoryScope scope(memory_);
  for (unsigned form = 0; form < curveForms; ++form) {
    Template attributes(memory_);
    attributes.add(CKA_CLASS, CK_ULONG{CKO_PUBLIC_KEY}).add(CKA_TOKEN, false);
    if (!addPublicNumbers(attributes, key, form)) break;
    addUsage(attributes, partOf(usage, true));
    auto* const handle = memory_.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
    if (p11::C_CreateObject(session, attributes.in(), attributes.count(), handle) == CKR_OK) {
      return *handle;
    }
  }
  refuse();
}

// The PIN was proven by the first login. Were it refused here nevertheless, nobody tries it again.
CK_RV Keys::authenticate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key) {
  const auto known = wantLogin_.find(key);
  if (known == wantLogin_.end() || !known->second || board_ == nullptr || pin_ == nullptr) {
    return CKR_OK;
  }
  if (board_->contextLoginRefused.exchange(true)) return CKR_USER_NOT_LOGGED_IN;
  const MemoryScope scope(memory_);
  const std::string_view pin = pin_->text();
  const CK_RV value = p11::C_Login(session, CKU_CONTEXT_SPECIFIC, memory_.in(pin), pin.size());
  if (value == CKR_OK) board_->contextLoginRefused = false;
  return value;
}

}  // namespace kestrel::probe
