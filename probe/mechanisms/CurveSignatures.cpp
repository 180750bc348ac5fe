// Signatures with keys of curves and of prime fields.
#include <fmt/format.h>

#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

using Form = outside::SignatureForm;

// Where the keys are from.
struct Group {
  const char* name;
  const KeyPair& (*pair)(Keys&);
  OutsideKey (*make)();
};

constexpr Group curves[] = {
    {"P-256", [](Keys& keys) -> const KeyPair& { return keys.ec(p256, canMac); },
     [] { return outside::newEcKey("P-256"); }},
    {"P-384", [](Keys& keys) -> const KeyPair& { return keys.ec(p384, canMac); },
     [] { return outside::newEcKey("P-384"); }},
    {"P-521", [](Keys& keys) -> const KeyPair& { return keys.ec(p521, canMac); },
     [] { return outside::newEcKey("P-521"); }},
};
constexpr Group edwards[] = {
    {"Ed25519", [](Keys& keys) -> const KeyPair& { return keys.ec(ed25519, canMac); },
     [] { return outside::newKey("ED25519"); }},
    {"Ed448", [](Keys& keys) -> const KeyPair& { return keys.ec(ed448, canMac); },
     [] { return outside::newKey("ED448"); }},
};
constexpr Group fields[] = {
    {"1024", [](Keys& keys) -> const KeyPair& { return keys.dsa(canMac); },
     [] { return outside::newDsaKey(); }},
};

struct Row {
  CK_MECHANISM_TYPE type;
  std::span<const Group> groups;
  Form form;
};

constexpr Form numbers(const char* digest) {
  return {Form::Kind::numbers, digest, digest != nullptr};
}

constexpr Row rows[] = {
    {CKM_ECDSA, curves, numbers(nullptr)},
    {CKM_ECDSA_SHA1, curves, numbers("SHA1")},
    {CKM_ECDSA_SHA224, curves, numbers("SHA224")},
    {CKM_ECDSA_SHA256, curves, numbers("SHA256")},
    {CKM_ECDSA_SHA384, curves, numbers("SHA384")},
    {CKM_ECDSA_SHA512, curves, numbers("SHA512")},
    {CKM_ECDSA_SHA3_224, curves, numbers("SHA3-224")},
    {CKM_ECDSA_SHA3_256, curves, numbers("SHA3-256")},
    {CKM_ECDSA_SHA3_384, curves, numbers("SHA3-384")},
    {CKM_ECDSA_SHA3_512, curves, numbers("SHA3-512")},
    {CKM_EDDSA, edwards, {Form::Kind::pure}},
    {CKM_DSA, fields, numbers(nullptr)},
    {CKM_DSA_SHA1, fields, numbers("SHA1")},
    {CKM_DSA_SHA224, fields, numbers("SHA224")},
    {CKM_DSA_SHA256, fields, numbers("SHA256")},
    {CKM_DSA_SHA384, fields, numbers("SHA384")},
    {CKM_DSA_SHA512, fields, numbers("SHA512")},
};

constexpr const char* refused = "OpenSSL takes the signature for wrong";

// A hash that fits the smallest of the groups, or a message.
Bytes dataOf(const Row& row, char seed = 0) {
  const Bytes text = message(1003) + seed;
  return row.form.hashes || row.form.kind == Form::Kind::pure ? text
                                                              : outside::digest("SHA1", text);
}

void sign(Bench& bench, const Row& row, const Group& group, bool inParts) {
  const KeyPair& pair = group.pair(bench.keys);
  const Bytes data = dataOf(row);
  const Kit kit = operation(bench, Kind::sign, row.type, {}, pair.privateKey);
  const Bytes signature = inParts ? inPieces(bench, kit, data) : inOne(bench, kit, data);
  bench.require(outside::verifies(pair.outside.get(), row.form, data, signature), refused);
}

// Numbers with leading zeros are as long as the others: one signature in 128 has one.
void widths(Bench& bench, const Row& row, const Group& group) {
  constexpr char often = 127;
  const KeyPair& pair = group.pair(bench.keys);
  std::size_t length = 0;
  for (char i = 0; i < often; ++i) {
    const MemoryScope scope(bench.memory);
    const Bytes data = dataOf(row, i);
    const Bytes signature =
        inOne(bench, operation(bench, Kind::sign, row.type, {}, pair.privateKey), data);
    if (length == 0) length = signature.size();
    bench.require(signature.size() == length, "signatures have different lengths");
    bench.require(outside::verifies(pair.outside.get(), row.form, data, signature), refused);
  }
}

struct Signed {
  Kit kit;
  Bytes data, signature;
};

Signed signedOutside(Bench& bench, const Row& row, const Group& group) {
  const OutsideKey key = group.make();
  const CK_OBJECT_HANDLE publicKey = bench.keys.importPublic(bench.session, key.get(), canVerify);
  Bytes data = dataOf(row);
  Bytes signature = outside::sign(key.get(), row.form, data);
  return {operation(bench, Kind::verify, row.type, {}, publicKey), std::move(data),
          std::move(signature)};
}

void verify(Bench& bench, const Row& row, const Group& group, bool inParts) {
  const Signed made = signedOutside(bench, row, group);
  bench.work(confirm(bench, made.kit, made.data, made.signature, inParts),
             "a signature that OpenSSL has made");
}

void verifyChanged(Bench& bench, const Row& row, const Group& group) {
  constexpr Expected refusals{CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE};
  const Signed made = signedOutside(bench, row, group);
  bench.control(confirm(bench, made.kit, made.data, made.signature));
  for (const std::size_t at : {std::size_t{8}, made.signature.size() - 1}) {
    bench.refused(confirm(bench, made.kit, made.data, changed(made.signature, at)), refusals,
                  "a signature with one bit changed is taken for right");
  }
  bench.refused(confirm(bench, made.kit, changed(made.data, 0), made.signature), refusals,
                "the signature of other data is taken for right");
}

}  // namespace

void addCurveSignatures(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    for (const Group& group : row.groups) {
      const auto add = [&](CK_FLAGS flag, const char* name, const char* clause, auto run) {
        checks.add(flag, fmt::format(fmt::runtime(name), group.name), clause,
                   [&row, &group, run](Bench& bench) { run(bench, row, group); });
      };
      add(CKF_SIGN, "sign/{}/single", "C_Sign",
          [](Bench& b, const Row& r, const Group& g) { sign(b, r, g, false); });
      add(CKF_VERIFY, "verify/{}/single", "C_Verify",
          [](Bench& b, const Row& r, const Group& g) { verify(b, r, g, false); });
      add(CKF_VERIFY, "verify/{}/changed", "C_Verify", verifyChanged);
      if (row.type == CKM_ECDSA || row.type == CKM_DSA) {
        add(CKF_SIGN, "sign/{}/widths", "C_Sign", widths);
      }
      if (!row.form.hashes) continue;
      add(CKF_SIGN, "sign/{}/parts", "C_SignUpdate",
          [](Bench& b, const Row& r, const Group& g) { sign(b, r, g, true); });
      add(CKF_VERIFY, "verify/{}/parts", "C_VerifyUpdate",
          [](Bench& b, const Row& r, const Group& g) { verify(b, r, g, true); });
    }
  }
}

}  // namespace kestrel::probe
