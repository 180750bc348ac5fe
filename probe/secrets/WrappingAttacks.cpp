// Keys that leave the token under another one: those that must not, and what comes back of those
// that may.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/Keys.h"
#include "probe/secrets/Secrets.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG room = 256;  // bytes of any wrapped key here
constexpr View vector = "0123456789abcdef";

CK_RV wrap(Bench& bench, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE wrapping, CK_OBJECT_HANDLE key,
           Bytes& wrapped) {
  auto* const length = bench.memory.out<CK_ULONG>(room);
  CK_BYTE* const output = bench.memory.bytes(room);
  const CK_RV result = p11::C_WrapKey(bench.session, mechanism, wrapping, key, output, length);
  if (result == CKR_OK) wrapped.assign(reinterpret_cast<const char*>(output), *length);
  return result;
}

void wrapUnextractable(Bench& bench) {
  const Carrier carrier = Carrier::wrapping(bench);
  Bytes wrapped;
  const CK_RV result =
      wrap(bench, carrier.mechanism, carrier.base, makeSecret(bench, true, false), wrapped);
  bench.refused(result, bench.check.expected, "a key that cannot be extracted is wrapped");
}

// The key that wraps is not a trusted one: nobody but the security officer could make it that.
void wrapWithAny(Bench& bench) {
  const Carrier carrier = Carrier::wrapping(bench);
  const CK_OBJECT_HANDLE key = makeSecret(
      bench, true, true, [](Template& attributes) { attributes.add(CKA_WRAP_WITH_TRUSTED, true); });
  Bytes wrapped;
  bench.refused(wrap(bench, carrier.mechanism, carrier.base, key, wrapped), bench.check.expected,
                "a key that wants a trusted one is wrapped by another");
}

void makeTrusted(Bench& bench) {
  Template attributes = Carrier::result(bench);
  attributes.add(CKA_VALUE, secretValue);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key));
  attributes.add(CKA_TRUSTED, true);
  const CK_RV result = p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key);
  if (result != CKR_OK) return bench.expect(result);
  bench.expect(result, {CKR_OK});
  const bool trusted = readNumber(bench.session, *key, CKA_TRUSTED) == CK_ULONG{CK_TRUE};
  if (trusted) bench.wrong("a key of the user's own says that it is trusted");
}

// --- what the standard permits ---

struct Both {
  CK_MECHANISM_TYPE type;
  View parameter;
};

// That wrap and decrypt, or encrypt and unwrap, without padding that would be in the way.
constexpr Both ciphers[] = {{CKM_AES_ECB, {}}, {CKM_AES_CBC, vector}, {CKM_AES_CBC_PAD, vector}};

const Both& cipherFor(Bench& bench, CK_FLAGS flags) {
  for (const Both& row : ciphers) {
    if (bench.token.lists(row.type, flags)) return row;
  }
  bench.notApplicable("the token has no mechanism for it");
}

// A key that may do two things of which one undoes the other.
CK_OBJECT_HANDLE keyForBoth(Bench& bench, CK_ATTRIBUTE_TYPE one, CK_ATTRIBUTE_TYPE other) {
  Template attributes(bench.memory);
  attributes.add(CKA_TOKEN, false).add(one, true).add(CKA_VALUE_LEN, CK_ULONG{16});
  CK_MECHANISM* const generation = mechanismOf(bench, CKM_AES_KEY_GEN);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(
      p11::C_GenerateKey(bench.session, generation, attributes.in(), attributes.count(), key));
  attributes.add(other, true);
  const CK_RV result =
      p11::C_GenerateKey(bench.session, generation, attributes.in(), attributes.count(), key);
  if (result != CKR_OK) {
    bench.expect(result, refusals);
    bench.end(Verdict::ok, "");
  }
  return *key;
}

void wrapAndDecrypt(Bench& bench) {
  const Both& cipher = cipherFor(bench, CKF_WRAP | CKF_DECRYPT);
  CK_MECHANISM* const mechanism = mechanismOf(bench, cipher.type, cipher.parameter);
  const CK_OBJECT_HANDLE key = keyForBoth(bench, CKA_WRAP, CKA_DECRYPT);
  Bytes wrapped;
  bench.control(wrap(bench, mechanism, key, makeSecret(bench, true, true), wrapped));
  Kit kit = operation(bench, Kind::decrypt, cipher.type, cipher.parameter, key);
  kit.input = wrapped;
  auto* const length = bench.memory.out<CK_ULONG>(room);
  CK_BYTE* const output = bench.memory.bytes(room);
  const CK_RV begun = kit.begin(bench.session);
  const CK_RV result = begun == CKR_OK ? kit.single(bench.session, output, length) : begun;
  if (result == CKR_OK && View(reinterpret_cast<const char*>(output), *length) == secretValue) {
    bench.end(Verdict::weak, "a sensitive key in 5 calls: one key wraps it and decrypts it");
  }
  bench.expect(result, {CKR_KEY_FUNCTION_NOT_PERMITTED, result});
}

void encryptAndUnwrap(Bench& bench) {
  const Both& cipher = cipherFor(bench, CKF_ENCRYPT | CKF_UNWRAP);
  const CK_OBJECT_HANDLE key = keyForBoth(bench, CKA_ENCRYPT, CKA_UNWRAP);
  Kit kit = operation(bench, Kind::encrypt, cipher.type, cipher.parameter, key);
  kit.input = secretValue;
  const Bytes wrapped = kit.run(bench, bench.session);
  const Template attributes = Carrier::result(bench);
  const CK_RV result =
      p11::C_UnwrapKey(bench.session, mechanismOf(bench, cipher.type, cipher.parameter), key,
                       bench.memory.in(View(wrapped)), wrapped.size(), attributes.in(),
                       attributes.count(), bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
  if (result == CKR_OK) {
    bench.end(Verdict::weak, "a key of known value in 4 calls: one key encrypts it and unwraps it");
  }
  bench.expect(result, {CKR_KEY_FUNCTION_NOT_PERMITTED, result});
}

void unwrapInPlainSight(Bench& bench) {
  Carrier carrier = Carrier::wrapping(bench);
  bench.control(
      wrap(bench, carrier.mechanism, carrier.base, makeSecret(bench, true, true), carrier.wrapped));
  const Template attributes = Carrier::result(bench);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  const CK_RV result = p11::C_UnwrapKey(
      bench.session, carrier.mechanism, carrier.base, bench.memory.in(View(carrier.wrapped)),
      carrier.wrapped.size(), attributes.in(), attributes.count(), key);
  if (result != CKR_OK) return bench.expect(result, refusals);
  bench.expect(result, {CKR_OK});
  const std::optional<Bytes> value = readAttribute(bench.session, *key, CKA_VALUE);
  if (value && View(*value).starts_with(secretValue)) {
    bench.end(Verdict::weak, "a sensitive key in 3 calls: wrapped, and unwrapped in plain sight");
  }
}

// --- derivation ---

void deriveInPlainSight(Bench& bench, CK_MECHANISM_TYPE type, bool permitted) {
  const CK_KEY_DERIVATION_STRING_DATA data{bench.memory.in(vector), vector.size()};
  const CK_OBJECT_HANDLE base = makeSecret(
      bench, true, false, [](Template& attributes) { attributes.add(CKA_DERIVE, true); });
  Template attributes = Carrier::result(bench);
  attributes.add(CKA_VALUE_LEN, CK_ULONG{16});
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  const CK_RV result = p11::C_DeriveKey(bench.session, mechanismOf(bench, type, viewOf(data)), base,
                                        attributes.in(), attributes.count(), key);
  if (result != CKR_OK) return bench.expect(result);
  bench.expect(result, {CKR_OK});
  const std::optional<Bytes> value = readAttribute(bench.session, *key, CKA_VALUE);
  if (!value) return;
  constexpr const char* detail = "what is derived from a sensitive key is in plain sight";
  bench.end(permitted ? Verdict::weak : Verdict::wrong, detail);
}

constexpr Expected noDerivation{CKR_TEMPLATE_INCONSISTENT,      CKR_ATTRIBUTE_READ_ONLY,
                                CKR_ATTRIBUTE_VALUE_INVALID,    CKR_ATTRIBUTE_TYPE_INVALID,
                                CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_UNEXTRACTABLE,
                                CKR_KEY_TYPE_INCONSISTENT,      CKR_ACTION_PROHIBITED};

struct Derivation {
  const char* name;
  CK_MECHANISM_TYPE type;
  bool permitted;
};

constexpr Derivation derivations[] = {
    {"derive/CKM_XOR_BASE_AND_DATA", CKM_XOR_BASE_AND_DATA, false},
    {"derive/CKM_CONCATENATE_BASE_AND_DATA", CKM_CONCATENATE_BASE_AND_DATA, false},
    {"derive/CKM_CONCATENATE_DATA_AND_BASE", CKM_CONCATENATE_DATA_AND_BASE, false},
    {"derive/CKM_AES_ECB_ENCRYPT_DATA", CKM_AES_ECB_ENCRYPT_DATA, true},
};

}  // namespace

void addWrappingAttacks(Plan& plan) {
  addAttack(plan, "wrap-unextractable", FunctionId::C_WrapKey, {CKR_KEY_UNEXTRACTABLE},
            wrapUnextractable);
  addAttack(plan, "wrap-by-untrusted", FunctionId::C_WrapKey, {CKR_KEY_NOT_WRAPPABLE}, wrapWithAny);
  addAttack(plan, "make-trusted", FunctionId::C_CreateObject, refusals, makeTrusted);
  addAttack(plan, "wrap-and-decrypt", FunctionId::C_WrapKey, refusals, wrapAndDecrypt);
  addAttack(plan, "encrypt-and-unwrap", FunctionId::C_UnwrapKey, refusals, encryptAndUnwrap);
  addAttack(plan, "unwrap-in-plain-sight", FunctionId::C_UnwrapKey, refusals, unwrapInPlainSight);
  for (const Derivation& row : derivations) {
    addAttack(plan, row.name, FunctionId::C_DeriveKey, noDerivation, [&row](Bench& bench) {
      deriveInPlainSight(bench, row.type, row.permitted);
    }).mechanism = NeededMechanism{row.type, CKF_DERIVE};
  }
}

}  // namespace kestrel::probe
