// Keys and key pairs that the token makes.
#include <fmt/format.h>

#include "probe/KeyAttributes.h"
#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

constexpr const char* clause = "C_GenerateKey";
constexpr const char* pairClause = "C_GenerateKeyPair";

struct SecretRow {
  CK_MECHANISM_TYPE type;
  CK_KEY_TYPE keyType;
  std::array<CK_ULONG, 3> lengths;
  bool asksLength = true;
};

constexpr SecretRow secretRows[] = {
    {CKM_AES_KEY_GEN, CKK_AES, {16, 24, 32}},
    {CKM_AES_XTS_KEY_GEN, CKK_AES_XTS, {32, 64}},
    {CKM_GENERIC_SECRET_KEY_GEN, CKK_GENERIC_SECRET, {16, 32, 64}},
    {CKM_DES_KEY_GEN, CKK_DES, {8}, false},
    {CKM_DES2_KEY_GEN, CKK_DES2, {16}, false},
    {CKM_DES3_KEY_GEN, CKK_DES3, {24}, false},
    {CKM_CAMELLIA_KEY_GEN, CKK_CAMELLIA, {16, 24, 32}},
    {CKM_ARIA_KEY_GEN, CKK_ARIA, {16, 24, 32}},
    {CKM_SEED_KEY_GEN, CKK_SEED, {16}, false},
    {CKM_CHACHA20_KEY_GEN, CKK_CHACHA20, {32}, false},
    {CKM_POLY1305_KEY_GEN, CKK_POLY1305, {32}, false},
};

void requireNumber(Bench& bench, CK_OBJECT_HANDLE key, CK_ATTRIBUTE_TYPE type, CK_ULONG expected,
                   const char* detail) {
  const std::optional<CK_ULONG> value = readNumber(bench.session, key, type);
  bench.require(value == expected, detail);
}

void requireType(Bench& bench, CK_OBJECT_HANDLE key, CK_KEY_TYPE type) {
  requireNumber(bench, key, CKA_KEY_TYPE, type, "CKA_KEY_TYPE is not the mechanism's");
}

Bytes secretValue(Bench& bench, const SecretRow& row, CK_ULONG length) {
  Template attributes(bench.memory);
  attributes.add(CKA_TOKEN, false).add(CKA_SENSITIVE, false).add(CKA_EXTRACTABLE, true);
  if (row.asksLength) attributes.add(CKA_VALUE_LEN, length);
  auto* const mechanism = bench.memory.in(CK_MECHANISM{row.type, nullptr, 0});
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.work(
      p11::C_GenerateKey(bench.session, mechanism, attributes.in(), attributes.count(), key));
  requireType(bench, *key, row.keyType);
  const std::optional<Bytes> value = readAttribute(bench.session, *key, CKA_VALUE);
  if (!value) bench.notApplicable("the value of a key that is not sensitive is not to be had");
  return *value;
}

void generateSecret(Bench& bench, const SecretRow& row, CK_ULONG length) {
  const Bytes one = secretValue(bench, row, length), other = secretValue(bench, row, length);
  bench.require(one.size() == length, "the key has another length");
  bench.require(one != other, "two keys are the same");
  if (isDes(row.keyType)) bench.require(hasOddParity(one), "a DES key is without odd parity");
}

// --- pairs ---

struct Pair {
  CK_OBJECT_HANDLE publicKey, privateKey;
};

Pair generatePair(Bench& bench, CK_MECHANISM_TYPE type, CK_KEY_TYPE keyType, CK_ULONG bits,
                  View parameters) {
  Template publicKey(bench.memory), privateKey(bench.memory);
  publicKey.add(CKA_TOKEN, false);
  addGenerationAttributes(publicKey, keyType, bits, parameters);
  privateKey.add(CKA_TOKEN, false);
  auto* const mechanism = bench.memory.in(CK_MECHANISM{type, nullptr, 0});
  auto* const keys = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE, 2);
  bench.work(p11::C_GenerateKeyPair(bench.session, mechanism, publicKey.in(), publicKey.count(),
                                    privateKey.in(), privateKey.count(), keys, keys + 1));
  requireType(bench, keys[0], keyType);
  requireType(bench, keys[1], keyType);
  return {keys[0], keys[1]};
}

Bytes attributeOf(Bench& bench, CK_OBJECT_HANDLE key, CK_ATTRIBUTE_TYPE type) {
  const std::optional<Bytes> value = readAttribute(bench.session, key, type);
  if (!value) bench.wrong("an attribute of a public key is not to be had");
  return *value;
}

// What the private key signs, the public one has to confirm.
void requireBelongs(Bench& bench, const Pair& pair, EVP_PKEY* publicKey) {
  if (!bench.token.lists(CKM_RSA_PKCS, CKF_SIGN)) return;
  const Bytes data = outside::digest("SHA256", "of one pair?");
  const Bytes signature =
      inOne(bench, operation(bench, Kind::sign, CKM_RSA_PKCS, {}, pair.privateKey), data);
  bench.require(
      outside::verifies(publicKey, {outside::SignatureForm::Kind::pkcs1}, data, signature),
      "the two keys do not belong together");
}

void generateRsa(Bench& bench, CK_ULONG bits) {
  const Pair pair = generatePair(bench, CKM_RSA_PKCS_KEY_PAIR_GEN, CKK_RSA, bits, {});
  const Bytes modulus = attributeOf(bench, pair.publicKey, CKA_MODULUS);
  const Bytes exponent = attributeOf(bench, pair.publicKey, CKA_PUBLIC_EXPONENT);
  const OutsideKey key = outside::rsaPublicKey(modulus, exponent);
  bench.require(static_cast<CK_ULONG>(EVP_PKEY_get_bits(key.get())) == bits,
                "the modulus has another length");
  bench.require(exponent.ends_with(View("\x01\x00\x01", 3)), "the public exponent is another");
  if (bits >= 512) requireBelongs(bench, pair, key.get());
}

// The least and the greatest that the token lists, as far as anybody waits for them.
void generateRsaAtEnd(Bench& bench, bool greatest) {
  constexpr CK_ULONG longest = 4096, shortest = 256;
  const ListedMechanism* const listed = bench.token.find(CKM_RSA_PKCS_KEY_PAIR_GEN);
  if (listed == nullptr) bench.notApplicable("not listed");
  const CK_ULONG least = listed->info.ulMinKeySize, most = listed->info.ulMaxKeySize;
  if (least > most) bench.wrong("the least length listed is greater than the greatest");
  const CK_ULONG bits = greatest ? std::min(most, longest) : std::max(least, shortest);
  if (bits > longest || bits < shortest) bench.notApplicable("no length that is made here");
  generateRsa(bench, bits);
}

struct CurveRow {
  CK_MECHANISM_TYPE type;
  const char* name;
  const Curve* curve;
};

constexpr CurveRow curveRows[] = {
    {CKM_EC_KEY_PAIR_GEN, "P-256", &p256},
    {CKM_EC_KEY_PAIR_GEN, "P-384", &p384},
    {CKM_EC_KEY_PAIR_GEN, "P-521", &p521},
    {CKM_EC_EDWARDS_KEY_PAIR_GEN, "Ed25519", &ed25519},
    {CKM_EC_EDWARDS_KEY_PAIR_GEN, "Ed448", &ed448},
    {CKM_EC_MONTGOMERY_KEY_PAIR_GEN, "X25519", &x25519},
    {CKM_EC_MONTGOMERY_KEY_PAIR_GEN, "X448", &x448},
};

// A point that is on the curve: OpenSSL takes no other.
void generateCurve(Bench& bench, const CurveRow& row) {
  const Pair pair =
      generatePair(bench, row.type, row.curve->type, row.curve->bits, row.curve->parameters);
  bench.require(attributeOf(bench, pair.publicKey, CKA_EC_PARAMS) == row.curve->parameters,
                "CKA_EC_PARAMS is not what was asked for");
  if (row.curve->type != CKK_EC) return;
  const Bytes encoded = attributeOf(bench, pair.publicKey, CKA_EC_POINT);
  const std::size_t field = (row.curve->bits + 7) / 8, length = 1 + 2 * field;
  const std::size_t head = length < 128 ? 2 : 3;
  bench.require(encoded.size() == head + length && encoded[0] == '\x04',
                "CKA_EC_POINT is no DER of an uncompressed point");
  try {
    outside::ecPublicKey(row.curve->name, View(encoded).substr(head));
  } catch (const std::runtime_error&) {
    bench.wrong("the public key is no point of the curve");
  }
}

void generateField(Bench& bench, CK_MECHANISM_TYPE type, CK_KEY_TYPE keyType) {
  const Pair pair = generatePair(bench, type, keyType, 0, {});
  const outside::FieldGroup& group = keyType == CKK_DSA ? outside::dsaGroup() : outside::dhGroup();
  const Bytes value = attributeOf(bench, pair.publicKey, CKA_VALUE);
  bench.require(attributeOf(bench, pair.publicKey, CKA_PRIME) == group.prime,
                "CKA_PRIME is not what was asked for");
  bench.require(value.size() > group.prime.size() / 2 && value.size() <= group.prime.size(),
                "the public value has another length than the group");
}

}  // namespace

void addGeneration(Plan& plan) {
  for (const SecretRow& row : secretRows) {
    Checks checks(plan, row.type);
    for (const CK_ULONG length : row.lengths) {
      if (length == 0) break;
      checks.add(CKF_GENERATE, fmt::format("generate/{}-bytes", length), clause,
                 [&row, length](Bench& bench) { generateSecret(bench, row, length); });
    }
  }
  Checks rsa(plan, CKM_RSA_PKCS_KEY_PAIR_GEN);
  const auto addRsa = [&rsa](const char* name, std::function<void(Bench&)> run) {
    rsa.add(CKF_GENERATE_KEY_PAIR, name, pairClause, std::move(run));
  };
  addRsa("generate/least", [](Bench& bench) { generateRsaAtEnd(bench, false); });
  addRsa("generate/2048", [](Bench& bench) { generateRsa(bench, 2048); });
  addRsa("generate/greatest", [](Bench& bench) { generateRsaAtEnd(bench, true); });
  for (const CurveRow& row : curveRows) {
    Checks(plan, row.type)
        .add(CKF_GENERATE_KEY_PAIR, fmt::format("generate/{}", row.name), pairClause,
             [&row](Bench& bench) { generateCurve(bench, row); });
  }
  Checks(plan, CKM_DSA_KEY_PAIR_GEN)
      .add(CKF_GENERATE_KEY_PAIR, "generate/1024", pairClause,
           [](Bench& bench) { generateField(bench, CKM_DSA_KEY_PAIR_GEN, CKK_DSA); });
  Checks(plan, CKM_DH_PKCS_KEY_PAIR_GEN)
      .add(CKF_GENERATE_KEY_PAIR, "generate/2048", pairClause,
           [](Bench& bench) { generateField(bench, CKM_DH_PKCS_KEY_PAIR_GEN, CKK_DH); });
}

}  // namespace kestrel::probe
