// Signatures with RSA keys.
#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

using Form = outside::SignatureForm;

struct Row {
  CK_MECHANISM_TYPE type;
  Form::Kind kind;
  const char* digest = nullptr;  // OpenSSL's name
  bool hashes = false;           // the token does
  CK_MECHANISM_TYPE hash = 0;    // of PSS
  CK_RSA_PKCS_MGF_TYPE mask = 0;
  int salt = 0;
};

constexpr auto pkcs1 = Form::Kind::pkcs1, pss = Form::Kind::pss, raw = Form::Kind::raw;

constexpr Row rows[] = {
    {CKM_RSA_PKCS, pkcs1},
    {CKM_RSA_X_509, raw},
    {CKM_MD5_RSA_PKCS, pkcs1, "MD5", true},
    {CKM_RIPEMD160_RSA_PKCS, pkcs1, "RIPEMD160", true},
    {CKM_SHA1_RSA_PKCS, pkcs1, "SHA1", true},
    {CKM_SHA224_RSA_PKCS, pkcs1, "SHA224", true},
    {CKM_SHA256_RSA_PKCS, pkcs1, "SHA256", true},
    {CKM_SHA384_RSA_PKCS, pkcs1, "SHA384", true},
    {CKM_SHA512_RSA_PKCS, pkcs1, "SHA512", true},
    {CKM_SHA3_224_RSA_PKCS, pkcs1, "SHA3-224", true},
    {CKM_SHA3_256_RSA_PKCS, pkcs1, "SHA3-256", true},
    {CKM_SHA3_384_RSA_PKCS, pkcs1, "SHA3-384", true},
    {CKM_SHA3_512_RSA_PKCS, pkcs1, "SHA3-512", true},
    {CKM_RSA_PKCS_PSS, pss, "SHA256", false, CKM_SHA256, CKG_MGF1_SHA256, 32},
    {CKM_SHA1_RSA_PKCS_PSS, pss, "SHA1", true, CKM_SHA_1, CKG_MGF1_SHA1, 20},
    {CKM_SHA224_RSA_PKCS_PSS, pss, "SHA224", true, CKM_SHA224, CKG_MGF1_SHA224, 28},
    {CKM_SHA256_RSA_PKCS_PSS, pss, "SHA256", true, CKM_SHA256, CKG_MGF1_SHA256, 32},
    {CKM_SHA384_RSA_PKCS_PSS, pss, "SHA384", true, CKM_SHA384, CKG_MGF1_SHA384, 48},
    {CKM_SHA512_RSA_PKCS_PSS, pss, "SHA512", true, CKM_SHA512, CKG_MGF1_SHA512, 64},
    {CKM_SHA3_224_RSA_PKCS_PSS, pss, "SHA3-224", true, CKM_SHA3_224, CKG_MGF1_SHA3_224, 28},
    {CKM_SHA3_256_RSA_PKCS_PSS, pss, "SHA3-256", true, CKM_SHA3_256, CKG_MGF1_SHA3_256, 32},
    {CKM_SHA3_384_RSA_PKCS_PSS, pss, "SHA3-384", true, CKM_SHA3_384, CKG_MGF1_SHA3_384, 48},
    {CKM_SHA3_512_RSA_PKCS_PSS, pss, "SHA3-512", true, CKM_SHA3_512, CKG_MGF1_SHA3_512, 64},
};

constexpr const char* refused = "OpenSSL takes the signature for wrong";

Form formOf(const Row& row, int salt) {
  return {row.kind, row.digest, row.hashes, row.digest, salt};
}

// What is signed: a message, its hash, or, for X.509, as many bytes as the modulus has.
Bytes dataOf(const Row& row, EVP_PKEY* key) {
  if (row.hashes) return message(1003);
  if (row.kind != raw) return outside::digest("SHA256", message(1003));
  Bytes data = message(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
  data[0] = '\0';  // so that it is a smaller number than the modulus
  return data;
}

Kit kitOf(Bench& bench, const Row& row, Kind kind, CK_OBJECT_HANDLE key, int salt) {
  const CK_RSA_PKCS_PSS_PARAMS parameter{row.hash, row.mask, static_cast<CK_ULONG>(salt)};
  return operation(bench, kind, row.type, row.kind == pss ? viewOf(parameter) : View(), key);
}

void sign(Bench& bench, const Row& row, int salt, bool inParts) {
  const KeyPair& pair = bench.keys.rsa(canMac);
  const Bytes data = dataOf(row, pair.outside.get());
  const Kit kit = kitOf(bench, row, Kind::sign, pair.privateKey, salt);
  const Bytes signature = inParts ? inPieces(bench, kit, data) : inOne(bench, kit, data);
  bench.require(outside::verifies(pair.outside.get(), formOf(row, salt), data, signature), refused);
}

struct Signed {
  Kit kit;
  Bytes data, signature;
};

// By OpenSSL, for the token to look at.
Signed signedOutside(Bench& bench, const Row& row, int salt) {
  EVP_PKEY* const key = bench.keys.outsideRsa();
  const CK_OBJECT_HANDLE publicKey = bench.keys.importPublic(bench.session, key, canVerify);
  Bytes data = dataOf(row, key);
  Bytes signature = outside::sign(key, formOf(row, salt), data);
  return {kitOf(bench, row, Kind::verify, publicKey, salt), std::move(data), std::move(signature)};
}

void verify(Bench& bench, const Row& row, int salt, bool inParts) {
  const Signed made = signedOutside(bench, row, salt);
  bench.work(confirm(bench, made.kit, made.data, made.signature, inParts),
             "a signature that OpenSSL has made");
}

void verifyChanged(Bench& bench, const Row& row) {
  constexpr Expected refusals{CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE};
  const Signed made = signedOutside(bench, row, row.salt);
  bench.control(confirm(bench, made.kit, made.data, made.signature));
  bench.refused(
      confirm(bench, made.kit, made.data, changed(made.signature, made.signature.size() - 1)),
      refusals, "a signature with one bit changed is taken for right");
  bench.refused(confirm(bench, made.kit, changed(made.data, made.data.size() - 1), made.signature),
                refusals, "the signature of other data is taken for right");
}

void signRecover(Bench& bench, const Row& row) {
  const KeyPair& pair = bench.keys.rsa(canSignRecover | canVerifyRecover);
  const Bytes data = dataOf(row, pair.outside.get());
  const Kit kit = kitOf(bench, row, Kind::signRecover, pair.privateKey, 0);
  const Bytes signature = inOne(bench, kit, data);
  bench.require(outside::verifies(pair.outside.get(), formOf(row, 0), data, signature), refused);
}

void verifyRecover(Bench& bench, const Row& row) {
  EVP_PKEY* const key = bench.keys.outsideRsa();
  const CK_OBJECT_HANDLE publicKey = bench.keys.importPublic(bench.session, key, canVerifyRecover);
  const Bytes data = dataOf(row, key);
  const Kit kit = kitOf(bench, row, Kind::verifyRecover, publicKey, 0);
  const Bytes found = inOne(bench, kit, outside::sign(key, formOf(row, 0), data));
  bench.require(found == data, "the data is another than the one that OpenSSL signed");
}

}  // namespace

void addRsaSignatures(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    const auto add = [&](CK_FLAGS flag, const char* name, const char* clause, auto run) {
      checks.add(flag, name, clause, [&row, run](Bench& bench) { run(bench, row); });
    };
    add(CKF_SIGN, "sign/single", "C_Sign",
        [](Bench& bench, const Row& each) { sign(bench, each, each.salt, false); });
    add(CKF_VERIFY, "verify/single", "C_Verify",
        [](Bench& bench, const Row& each) { verify(bench, each, each.salt, false); });
    add(CKF_VERIFY, "verify/changed", "C_Verify", verifyChanged);
    if (row.hashes) {
      add(CKF_SIGN, "sign/parts", "C_SignUpdate",
          [](Bench& bench, const Row& each) { sign(bench, each, each.salt, true); });
      add(CKF_VERIFY, "verify/parts", "C_VerifyUpdate",
          [](Bench& bench, const Row& each) { verify(bench, each, each.salt, true); });
    }
    if (row.kind == pss) {
      add(CKF_SIGN, "sign/no-salt", "C_Sign",
          [](Bench& bench, const Row& each) { sign(bench, each, 0, false); });
      add(CKF_VERIFY, "verify/no-salt", "C_Verify",
          [](Bench& bench, const Row& each) { verify(bench, each, 0, false); });
    } else if (!row.hashes) {
      add(CKF_SIGN_RECOVER, "sign-recover/single", "C_SignRecover", signRecover);
      add(CKF_VERIFY_RECOVER, "verify-recover/single", "C_VerifyRecover", verifyRecover);
    }
  }
}

}  // namespace kestrel::probe
