// Secrets that two key pairs agree on.
#include <fmt/format.h>

#include "probe/KeyAttributes.h"
#include "probe/OutsideDerive.h"
#include "probe/OutsidePublic.h"
#include "probe/mechanisms/Derived.h"

namespace kestrel::probe {

namespace {

constexpr const char* clause = "C_DeriveKey";
constexpr const char* differs = "the secret is another than OpenSSL's";

struct CurveRow {
  const char* name;
  const Curve* curve;
  std::size_t secret;  // bytes of the whole
};

constexpr CurveRow curveRows[] = {
    {"P-256", &p256, 32},    {"P-384", &p384, 48}, {"P-521", &p521, 66},
    {"X25519", &x25519, 32}, {"X448", &x448, 56},
};

struct KdfRow {
  const char* name;
  CK_ULONG kdf;
  const char* digest;
};

constexpr KdfRow kdfRows[] = {
    {"SHA-1", CKD_SHA1_KDF, "SHA1"},       {"SHA-224", CKD_SHA224_KDF, "SHA224"},
    {"SHA-256", CKD_SHA256_KDF, "SHA256"}, {"SHA-384", CKD_SHA384_KDF, "SHA384"},
    {"SHA-512", CKD_SHA512_KDF, "SHA512"},
};

OutsideKey peerOf(const Curve& curve) {
  return curve.type == CKK_EC ? outside::newEcKey(curve.name) : outside::newKey(curve.name);
}

Bytes publicBytes(const Curve& curve, EVP_PKEY* key) {
  if (curve.type == CKK_EC) return outside::point(key);
  std::size_t length = 0;
  EVP_PKEY_get_raw_public_key(key, nullptr, &length);
  Bytes result(length, '\0');
  EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(result.data()), &length);
  return result;
}

struct Agreement {
  Bytes found, secret;
};

// `inDer`: the peer's point as DER, which the standard permits beside the bare one.
Agreement agree(Bench& bench, CK_MECHANISM_TYPE type, const CurveRow& row, CK_ULONG kdf,
                CK_ULONG length, bool inDer, View shared = {}) {
  const KeyPair& pair = bench.keys.ec(*row.curve, canDerive);
  const OutsideKey peer = peerOf(*row.curve);
  const Bytes bare = publicBytes(*row.curve, peer.get());
  const Bytes given = inDer ? der('\x04', bare) : bare;
  const CK_ECDH1_DERIVE_PARAMS parameter{kdf, shared.size(),
                                         shared.empty() ? nullptr : bench.memory.in(shared),
                                         given.size(), bench.memory.in(View(given))};
  Bytes found = derived(bench, type, viewOf(parameter), pair.privateKey, length);
  return {std::move(found), outside::agree(peer.get(), pair.outside.get())};
}

void agreePlainly(Bench& bench, CK_MECHANISM_TYPE type, const CurveRow& row, bool inDer) {
  const Agreement made = agree(bench, type, row, CKD_NULL, row.secret, inDer);
  bench.require(made.found == made.secret, differs);
}

void agreeWithKdf(Bench& bench, CK_MECHANISM_TYPE type, const KdfRow& row) {
  constexpr CK_ULONG length = 40;
  const View info = "what both know";
  const Agreement made = agree(bench, type, curveRows[0], row.kdf, length, false, info);
  bench.require(made.found == outside::x963(row.digest, made.secret, info, length), differs);
}

void agreeInField(Bench& bench) {
  const KeyPair& pair = bench.keys.dh(canDerive);
  const OutsideKey peer = outside::newDhKey();
  const Bytes value = outside::number(peer.get(), "pub");
  const Bytes secret = outside::agree(peer.get(), pair.outside.get());
  const Bytes found =
      derived(bench, CKM_DH_PKCS_DERIVE, value, pair.privateKey, outside::dhGroup().prime.size());
  const std::size_t zeros = found.size() - std::min(found.size(), secret.size());
  bench.require(View(found).substr(zeros) == secret &&
                    View(found).substr(0, zeros).find_first_not_of('\0') == View::npos,
                differs);
}

}  // namespace

void addAgreements(Plan& plan) {
  for (const CK_MECHANISM_TYPE type : {CKM_ECDH1_DERIVE, CKM_ECDH1_COFACTOR_DERIVE}) {
    Checks checks(plan, type);
    for (const CurveRow& row : curveRows) {
      if (type != CKM_ECDH1_DERIVE && row.curve->type != CKK_EC) continue;
      checks.add(CKF_DERIVE, fmt::format("derive/{}", row.name), clause,
                 [type, &row](Bench& bench) { agreePlainly(bench, type, row, false); });
      if (row.curve->type != CKK_EC) continue;
      checks.add(CKF_DERIVE, fmt::format("derive/{}/point-in-der", row.name), clause,
                 [type, &row](Bench& bench) { agreePlainly(bench, type, row, true); });
    }
    for (const KdfRow& row : kdfRows) {
      checks.add(CKF_DERIVE, fmt::format("derive/P-256/{}", row.name), clause,
                 [type, &row](Bench& bench) { agreeWithKdf(bench, type, row); });
    }
  }
  Checks(plan, CKM_DH_PKCS_DERIVE).add(CKF_DERIVE, "derive/2048", clause, agreeInField);
}

}  // namespace kestrel::probe
