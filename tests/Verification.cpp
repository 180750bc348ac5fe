// The independent check of a token's work: OpenSSL verifies signatures with the public key of the
// certificate beside the private key. The operator sees per signature what is checked and that it
// passed; a wrong PKCS#1 v1.5 signature ends the run under a banner.

#include <algorithm>
#include <array>

#include "harness/Notes.h"
#include "harness/Openssl.h"
#include "harness/Report.h"
#include "harness/SignatureMechanisms.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

struct Signature {
  const CK_BYTE* bytes;
  CK_ULONG length;
  const CK_BYTE* data;  // that was to be signed
  CK_ULONG dataLength;
};

struct OpensslDigest {
  CK_MECHANISM_TYPE type;
  const EVP_MD* (*openssl)();
};

constexpr std::array opensslDigests{
    OpensslDigest{CKM_SHA_1, EVP_sha1},
    OpensslDigest{CKM_SHA256, EVP_sha256},
    OpensslDigest{CKM_SHA384, EVP_sha384},
    OpensslDigest{CKM_SHA512, EVP_sha512},
};

constexpr const OpensslDigest* findDigest(const Digest& digest) {
  return std::ranges::find(opensslDigests, digest.type, &OpensslDigest::type);
}

static_assert(std::ranges::all_of(signatureMechanisms, [](const SignatureMechanism& row) {
  return row.padding == Padding::unchecked || findDigest(*row.digest) != opensslDigests.end();
}));

enum class Verdict { wrong, right, unchecked };

// Only a result of 0 rejects, on purpose: a negative one says that OpenSSL could not check, as with
// a certificate of another kind of key, and that is no fault of the signature.
constexpr Verdict verdictOf(int result) {
  return result == 0 ? Verdict::wrong : result > 0 ? Verdict::right : Verdict::unchecked;
}

Verdict verifyPkcs1(EVP_MD_CTX* context, const Digest& digest, const Signature& signature,
                    EVP_PKEY* key) {
  EVP_DigestInit_ex(context, findDigest(digest)->openssl(), nullptr);
  EVP_DigestUpdate(context, signature.data, signature.dataLength);
  return verdictOf(
      EVP_VerifyFinal(context, signature.bytes, static_cast<unsigned>(signature.length), key));
}

Verdict verifyPss(EVP_MD_CTX* context, const Digest& digest, const Signature& signature,
                  EVP_PKEY* key) {
  if (EVP_DigestVerifyInit(context, nullptr, findDigest(digest)->openssl(), nullptr, key) == 0) {
    return Verdict::wrong;
  }
  EVP_PKEY_CTX* const keyContext = EVP_MD_CTX_get_pkey_ctx(context);
  if (keyContext == nullptr) return Verdict::wrong;
  const int padding = EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING);
  if (padding == 0) return Verdict::wrong;
  const int salt = EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST);
  if (salt == 0) return Verdict::wrong;
  const Verdict verdict = verdictOf(EVP_DigestVerify(context, signature.bytes, signature.length,
                                                     signature.data, signature.dataLength));
  return verdict == Verdict::right && (padding < 0 || salt < 0) ? Verdict::unchecked : verdict;
}

[[noreturn]] void endAfterWrongSignature() {
  constexpr char rule[] = "**********************************************************\n";
  report << rule << "       SIGNATURE VERIFICATION FAILED\n" << rule;
  endProgram(1);
}

void announce(const SignatureMechanism& row) {
  if (row.announcement != nullptr) {
    report << row.announcement;
  } else {
    report << "Performing " << row.name << " signature verification\n";
  }
}

KeyOwner decodePublicKey(const std::string& der) {
  const OpensslErrorScope errors;
  const BioOwner bio(BIO_new_mem_buf(der.data(), static_cast<int>(der.size())));
  if (bio == nullptr) return nullptr;
  const CertificateOwner certificate(d2i_X509_bio(bio.get(), nullptr));
  if (certificate == nullptr) return nullptr;
  return KeyOwner(X509_get_pubkey(certificate.get()));
}

}  // namespace

KeyOwner TestManager::getPublicKey(CK_SESSION_HANDLE /*session*/, const CertKeyRecord& record) {
  if (decodedKey == nullptr || decodedCertificate != record.certificateValue) {
    decodedKey = decodePublicKey(record.certificateValue);
    decodedCertificate = record.certificateValue;
  }
  if (decodedKey != nullptr) EVP_PKEY_up_ref(decodedKey.get());
  return KeyOwner(decodedKey.get());
}

CK_RV TestManager::verifySig(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE mechanism,
                             const CK_BYTE* data, CK_ULONG dataLength, const CK_BYTE* signature,
                             CK_ULONG signatureLength, const CertKeyRecord& record) {
  const OpensslErrorScope errors;
  const DigestContextOwner context(EVP_MD_CTX_new());
  if (context == nullptr) {
    report << "Failed to initialize EVP_MD_CTX";
    return CKR_FUNCTION_FAILED;
  }
  report << "getting public key in openssl function\n";
  const KeyOwner key = getPublicKey(session, record);
  const SignatureMechanism* const row = findSignatureMechanism(mechanism);
  if (row == nullptr) {
    report << std::dec << "Mechanism (" << mechanism << ") not found\n";
    return CKR_OK;
  }
  announce(*row);
  if (row->padding == Padding::unchecked) return CKR_OK;
  const auto verify = row->padding == Padding::pss ? verifyPss : verifyPkcs1;
  const Verdict verdict = verify(context.get(), *row->digest,
                                 {signature, signatureLength, data, dataLength}, key.get());
  if (verdict == Verdict::unchecked) note(uncheckedNote);
  if (verdict == Verdict::wrong) {
    if (row->padding == Padding::pss) return CKR_FUNCTION_FAILED;
    endAfterWrongSignature();
  }
  report << row->name << " signature verification passed\n";
  return CKR_OK;
}

}  // namespace kestrel
