// Data of a length that a mechanism does not take, and what was damaged on its way.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/OutsideSymmetric.h"
#include "probe/Values.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"
#include "probe/errors/ErrorKeys.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG room = 1024;  // bytes of any result
constexpr View vector = "0123456789abcdef";
constexpr std::size_t modulus = 256;  // bytes of the RSA key from outside

Bytes ofLength(std::size_t length) {
  return Bytes(length, 'd');
}

constexpr Expected tooLong{CKR_DATA_LEN_RANGE};
constexpr Expected badCiphertext{CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_ENCRYPTED_DATA_INVALID};

struct Row {
  Kind kind;
  CK_MECHANISM_TYPE type;
  KeyKind key;
  std::size_t good, bad;  // bytes of data
  Expected expected;
  View parameter = {};
};

// A ciphertext of any bytes is one of a mechanism without padding. What has padding, or RSA's, is
// refused for its length before anything else can be found out.
constexpr Row rows[] = {
    {Kind::encrypt, CKM_AES_ECB, KeyKind::aes, 32, 17, {CKR_DATA_LEN_RANGE}},
    {Kind::encrypt, CKM_AES_CBC, KeyKind::aes, 32, 17, {CKR_DATA_LEN_RANGE}, vector},
    {Kind::decrypt, CKM_AES_ECB, KeyKind::aes, 32, 17, badCiphertext},
    {Kind::decrypt, CKM_AES_CBC, KeyKind::aes, 32, 17, badCiphertext, vector},
    {Kind::decrypt, CKM_AES_CBC_PAD, KeyKind::aes, 0, 17, badCiphertext, vector},
    {Kind::decrypt, CKM_AES_CBC_PAD, KeyKind::aes, 0, 1, badCiphertext, vector},
    {Kind::encrypt, CKM_RSA_PKCS, KeyKind::rsaPublic, modulus - 11, modulus - 10, tooLong},
    {Kind::encrypt, CKM_RSA_PKCS, KeyKind::rsaPublic, modulus - 11, modulus + 1, tooLong},
    {Kind::encrypt, CKM_RSA_X_509, KeyKind::rsaPublic, modulus - 1, modulus + 1, tooLong},
    {Kind::sign, CKM_RSA_PKCS, KeyKind::rsaPrivate, modulus - 11, modulus - 10, tooLong},
    {Kind::sign, CKM_RSA_X_509, KeyKind::rsaPrivate, modulus - 1, modulus + 1, tooLong},
    {Kind::signRecover, CKM_RSA_PKCS, KeyKind::rsaPrivate, modulus - 11, modulus - 10, tooLong},
    {Kind::decrypt, CKM_RSA_PKCS, KeyKind::rsaPrivate, 0, modulus - 1, badCiphertext},
    {Kind::decrypt, CKM_RSA_PKCS, KeyKind::rsaPrivate, 0, modulus + 1, badCiphertext},
};

Kit kitOf(Bench& bench, const Row& row, CK_OBJECT_HANDLE key, std::size_t length) {
  Kit kit = operation(bench, row.kind, row.type, row.parameter, key);
  kit.input = ofLength(length);
  return kit;
}

CK_RV inOneCall(Bench& bench, const Kit& kit) {
  return kit.single(bench.session, bench.memory.bytes(room), bench.memory.out<CK_ULONG>(room));
}

// The other way round: an operation of which any module can do a whole one.
void requireGoes(Bench& bench, const Row& row, CK_OBJECT_HANDLE key) {
  if (row.good == 0) return bench.control(kitOf(bench, row, key, 0).begin(bench.openSession()));
  kitOf(bench, row, key, row.good).run(bench, bench.openSession());
}

void wrongLength(Bench& bench, const Row& row) {
  const CK_OBJECT_HANDLE key = makeKey(bench, row.key, permissionFor(row.kind), true);
  requireGoes(bench, row, key);
  const Kit kit = kitOf(bench, row, key, row.bad);
  bench.control(kit.begin(bench.session));
  bench.expect(inOneCall(bench, kit), row.expected);
  const CK_RV result = kit.begin(bench.session);
  bench.require(result == CKR_OK, "after it the operation has not ended");
}

// The same at the end of an operation in parts.
void wrongLengthAtEnd(Bench& bench, const Row& row) {
  const CK_OBJECT_HANDLE key = makeKey(bench, row.key, permissionFor(row.kind), true);
  requireGoes(bench, row, key);
  const Kit kit = kitOf(bench, row, key, row.bad);
  auto* const length = bench.memory.out<CK_ULONG>(room);
  bench.control(kit.begin(bench.session));
  const CK_RV taken = kit.update(bench.session, bench.memory.bytes(room), length);
  if (taken != CKR_OK) bench.notApplicable("no part of such a length is taken");
  *length = room;
  bench.expect(kit.finish(bench.session, bench.memory.bytes(room), length), row.expected);
  const CK_RV result = kit.begin(bench.session);
  bench.require(result == CKR_OK, "after it the operation has not ended");
}

// --- padding that is none ---

struct Padding {
  const char* name;
  View last;  // bytes of the plaintext's last block
};

constexpr Padding paddings[] = {
    {"of-0", View("fifteen bytes..\0", 16)},
    {"of-17", View("fifteen bytes..\x11", 16)},
    {"of-unlike-bytes", View("thirteen byte\x03\x02\x03", 16)},
};

constexpr View aesKey = "a key of 16 byte";

void badPadding(Bench& bench, const Padding& padding) {
  const CK_OBJECT_HANDLE key = bench.keys.importSecret(bench.session, CKK_AES, aesKey, canCipher);
  outside::Cipher cipher{.name = "AES-128-CBC", .key = Bytes(aesKey), .iv = Bytes(vector)};
  Kit kit = operation(bench, Kind::decrypt, CKM_AES_CBC_PAD, vector, key);
  kit.input = outside::encrypt(cipher, Bytes("whole block 16 b").append("fifteen bytes..\x01"));
  const Kit good = kit;
  good.run(bench, bench.openSession());
  kit.input = outside::encrypt(cipher, Bytes("whole block 16 b").append(padding.last));
  bench.control(kit.begin(bench.session));
  const CK_RV result = inOneCall(bench, kit);
  bench.refused(result, bench.check.expected, "padding that is none is taken for some");
  requireWorks(bench, good);
}

// --- wrapped keys ---

struct Damage {
  const char* name;
  void (*doTo)(Bytes&);
  Expected expected;
};

constexpr Damage damages[] = {
    {"changed",
     [](Bytes& wrapped) { wrapped[3] = static_cast<char>(wrapped[3] ^ 1); },
     {CKR_WRAPPED_KEY_INVALID, CKR_WRAPPED_KEY_LEN_RANGE}},
    {"one-short",
     [](Bytes& wrapped) { wrapped.pop_back(); },
     {CKR_WRAPPED_KEY_LEN_RANGE, CKR_WRAPPED_KEY_INVALID}},
    {"one-long",
     [](Bytes& wrapped) { wrapped += '+'; },
     {CKR_WRAPPED_KEY_LEN_RANGE, CKR_WRAPPED_KEY_INVALID}},
    {"empty",
     [](Bytes& wrapped) { wrapped.clear(); },
     {CKR_WRAPPED_KEY_LEN_RANGE, CKR_WRAPPED_KEY_INVALID, CKR_ARGUMENTS_BAD}},
};

void damaged(Bench& bench, const Damage& damage) {
  Carrier carrier = Carrier::wrapping(bench);
  const CK_MECHANISM_TYPE type = carrier.mechanism->mechanism;
  const bool knowsItsOwn = type == CKM_AES_KEY_WRAP || type == CKM_AES_KEY_WRAP_KWP;
  if (!knowsItsOwn) bench.notApplicable("no mechanism here knows what it has wrapped");
  damage.doTo(carrier.wrapped);
  const CK_RV result = carrier.unwrap(bench, Carrier::result(bench));
  bench.refused(result, bench.check.expected, "a wrapped key that was damaged becomes a key");
}

}  // namespace

void addDataErrors(Plan& plan) {
  for (const Row& row : rows) {
    const KindRow& kind = rowOf(row.kind);
    const std::string name = fmt::format("{}-bytes/{}", row.bad, valueText("CKM_", row.type));
    const NeededMechanism needed{row.type, kind.flag};
    addError(plan, kind.single, name, row.expected, [&row](Bench& bench) {
      wrongLength(bench, row);
    }).mechanism = needed;
    if (row.key != KeyKind::aes) continue;
    addError(plan, kind.final, name, row.expected, [&row](Bench& bench) {
      wrongLengthAtEnd(bench, row);
    }).mechanism = needed;
  }
  for (const Padding& padding : paddings) {
    addError(plan, FunctionId::C_Decrypt, fmt::format("padding-{}", padding.name),
             {CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE},
             [&padding](Bench& bench) { badPadding(bench, padding); })
        .mechanism = NeededMechanism{CKM_AES_CBC_PAD, CKF_DECRYPT};
  }
  for (const Damage& damage : damages) {
    addError(plan, FunctionId::C_UnwrapKey, fmt::format("wrapped-key-{}", damage.name),
             damage.expected, [&damage](Bench& bench) { damaged(bench, damage); });
  }
}

}  // namespace kestrel::probe
