// Keys that leave the token under another one, and come back.
#include <fmt/format.h>

#include "probe/KeyAttributes.h"
#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

constexpr View vector = "a vector of ours";

// How a mechanism wraps: with a cipher of OpenSSL's or with an RSA key.
struct Row {
  CK_MECHANISM_TYPE type;
  const char* outside;  // null: RSA
  CK_KEY_TYPE keyType = CKK_RSA;
  CK_ULONG keyLength = 0;
  std::size_t vector = 0;
  bool padded = false;
  bool anyLength = false;  // a private key, as its PrivateKeyInfo is no multiple of a block
};

// CKM_AES_KEY_WRAP_PAD has no row: the standard gave it up because it pads in more ways than one.
constexpr Row rows[] = {
    {CKM_AES_KEY_WRAP, "AES-128-WRAP", CKK_AES, 16},
    {CKM_AES_KEY_WRAP_KWP, "AES-128-WRAP-PAD", CKK_AES, 16, 0, false, true},
    {CKM_AES_ECB, "AES-128-ECB", CKK_AES, 16},
    {CKM_AES_CBC, "AES-128-CBC", CKK_AES, 16, 16},
    {CKM_AES_CBC_PAD, "AES-128-CBC", CKK_AES, 16, 16, true, true},
    {CKM_DES3_ECB, "DES-EDE3-ECB", CKK_DES3, 24},
    {CKM_DES3_CBC, "DES-EDE3-CBC", CKK_DES3, 24, 8},
    {CKM_DES3_CBC_PAD, "DES-EDE3-CBC", CKK_DES3, 24, 8, true, true},
    {CKM_RSA_PKCS, nullptr},
    {CKM_RSA_PKCS_OAEP, nullptr},
};

outside::RsaForm rsaForm(const Row& row) {
  if (row.type == CKM_RSA_PKCS) return {outside::RsaForm::Kind::pkcs1};
  return {outside::RsaForm::Kind::oaep, "SHA1", "SHA1"};
}

CK_MECHANISM* mechanismOf(Bench& bench, const Row& row) {
  const CK_RSA_PKCS_OAEP_PARAMS oaep{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0};
  const View parameter =
      row.type == CKM_RSA_PKCS_OAEP ? viewOf(oaep) : vector.substr(0, row.vector);
  return bench.memory.in(CK_MECHANISM{
      row.type, parameter.empty() ? nullptr : bench.memory.in(parameter), parameter.size()});
}

outside::Cipher cipherOf(const Row& row, View key) {
  return {.name = row.outside,
          .key = Bytes(key),
          .iv = Bytes(vector.substr(0, row.vector)),
          .padded = row.padded};
}

// The key that wraps, which OpenSSL has too, and what it makes of a wrapped key.
struct Wrapper {
  CK_OBJECT_HANDLE key;
  std::function<Bytes(View)> open;
};

Wrapper wrapperOf(Bench& bench, const Row& row) {
  if (row.outside == nullptr) {
    EVP_PKEY* const key = bench.keys.outsideRsa();
    return {bench.keys.importPublic(bench.session, key, canWrap),
            [key, &row](View wrapped) { return outside::decrypt(key, rsaForm(row), wrapped); }};
  }
  const SecretKey& key = bench.keys.secret(row.keyType, row.keyLength, canCarry);
  return {key.handle, [&key, &row](View wrapped) {
            return outside::decrypt(cipherOf(row, key.value), wrapped);
          }};
}

Bytes wrap(Bench& bench, const Row& row, CK_OBJECT_HANDLE wrapping, CK_OBJECT_HANDLE key) {
  constexpr CK_ULONG room = 8192;
  auto* const length = bench.memory.out<CK_ULONG>(room);
  CK_BYTE* const output = bench.memory.bytes(room);
  bench.work(p11::C_WrapKey(bench.session, mechanismOf(bench, row), wrapping, key, output, length));
  return {reinterpret_cast<const char*>(output), *length};
}

Bytes opened(Bench& bench, const Wrapper& wrapper, View wrapped) {
  try {
    return wrapper.open(wrapped);
  } catch (const std::runtime_error&) {
    bench.wrong("OpenSSL cannot unwrap it");
  }
}

constexpr View value = "a key of 32 bytes, of no secrets";
static_assert(value.size() == 32);

void wrapSecret(Bench& bench, const Row& row) {
  const Wrapper wrapper = wrapperOf(bench, row);
  const CK_OBJECT_HANDLE key = bench.keys.importSecret(bench.session, CKK_AES, value, canCipher);
  const Bytes found = opened(bench, wrapper, wrap(bench, row, wrapper.key, key));
  bench.require(found == value, "OpenSSL unwraps another key");
}

CK_OBJECT_HANDLE unwrap(Bench& bench, const Row& row, CK_OBJECT_HANDLE key, View wrapped,
                        const Template& attributes) {
  auto* const handle = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.work(p11::C_UnwrapKey(bench.session, mechanismOf(bench, row), key, bench.memory.in(wrapped),
                              wrapped.size(), attributes.in(), attributes.count(), handle),
             "what OpenSSL has wrapped");
  return *handle;
}

struct Wrapped {
  CK_OBJECT_HANDLE key;
  Bytes bytes;
};

// By OpenSSL, for the token.
Wrapped wrappedOutside(Bench& bench, const Row& row, View content) {
  if (row.outside == nullptr) {
    const KeyPair& pair = bench.keys.rsa(canCarry);
    return {pair.privateKey, outside::encrypt(pair.outside.get(), rsaForm(row), content)};
  }
  const SecretKey& key = bench.keys.secret(row.keyType, row.keyLength, canCarry);
  return {key.handle, outside::encrypt(cipherOf(row, key.value), content)};
}

void unwrapSecret(Bench& bench, const Row& row) {
  const Wrapped wrapped = wrappedOutside(bench, row, value);
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, CK_ULONG{CKK_AES})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, false)
      .add(CKA_EXTRACTABLE, true);
  const CK_OBJECT_HANDLE key = unwrap(bench, row, wrapped.key, wrapped.bytes, attributes);
  const std::optional<Bytes> found = readAttribute(bench.session, key, CKA_VALUE);
  if (!found) bench.notApplicable("the value of a key that is not sensitive is not to be had");
  bench.require(*found == value, "the key is another than the one that OpenSSL wrapped");
}

// --- private keys ---

struct PrivateRow {
  const char* name;
  CK_KEY_TYPE type;
  OutsideKey (*make)();
  CK_MECHANISM_TYPE signing;
  outside::SignatureForm form;
};

constexpr PrivateRow privateRows[] = {
    {"RSA-key",
     CKK_RSA,
     [] { return outside::newRsaKey(2048); },
     CKM_RSA_PKCS,
     {outside::SignatureForm::Kind::pkcs1}},
    {"EC-key",
     CKK_EC,
     [] { return outside::newEcKey("P-256"); },
     CKM_ECDSA,
     {outside::SignatureForm::Kind::numbers}},
};

void wrapPrivate(Bench& bench, const Row& row, const PrivateRow& target) {
  const Wrapper wrapper = wrapperOf(bench, row);
  const OutsideKey key = target.make();
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, false)
      .add(CKA_EXTRACTABLE, true)
      .add(CKA_SIGN, true);
  addPrivateNumbers(attributes, key.get(), 0);
  auto* const handle = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), handle));
  const Bytes info = opened(bench, wrapper, wrap(bench, row, wrapper.key, *handle));
  const OutsideKey found = outside::keyOfInfo(info);
  bench.require(found != nullptr, "what OpenSSL unwraps is no PrivateKeyInfo");
  bench.require(EVP_PKEY_eq(found.get(), key.get()) == 1, "OpenSSL unwraps another key");
}

void unwrapPrivate(Bench& bench, const Row& row, const PrivateRow& target) {
  const OutsideKey key = target.make();
  const Wrapped wrapped = wrappedOutside(bench, row, outside::privateKeyInfo(key.get()));
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY})
      .add(CKA_KEY_TYPE, target.type)
      .add(CKA_TOKEN, false)
      .add(CKA_SIGN, true);
  const CK_OBJECT_HANDLE handle = unwrap(bench, row, wrapped.key, wrapped.bytes, attributes);
  const Bytes hash = outside::digest("SHA256", "signed by a key that came back");
  const Bytes signature =
      inOne(bench, operation(bench, Kind::sign, target.signing, {}, handle), hash);
  bench.require(outside::verifies(key.get(), target.form, hash, signature),
                "the key is another than the one that OpenSSL wrapped");
}

}  // namespace

void addWrapping(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    checks.add(CKF_WRAP, "wrap/secret-key", "C_WrapKey",
               [&row](Bench& bench) { wrapSecret(bench, row); });
    checks.add(CKF_UNWRAP, "unwrap/secret-key", "C_UnwrapKey",
               [&row](Bench& bench) { unwrapSecret(bench, row); });
    if (!row.anyLength) continue;
    for (const PrivateRow& target : privateRows) {
      checks.add(CKF_WRAP, fmt::format("wrap/{}", target.name), "C_WrapKey",
                 [&row, &target](Bench& bench) { wrapPrivate(bench, row, target); });
      checks.add(CKF_UNWRAP, fmt::format("unwrap/{}", target.name), "C_UnwrapKey",
                 [&row, &target](Bench& bench) { unwrapPrivate(bench, row, target); });
    }
  }
}

}  // namespace kestrel::probe
