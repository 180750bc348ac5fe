#include "token/TokenMechanisms.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <sstream>

namespace kestrel::token {

namespace {

// By default: every signature mechanism but the raw one, and OAEP.
constexpr char defaultList[] = "1,6,0x40,0x41,0x42,9,0xd,0xe,0x43,0x44,0x45";

constexpr CK_ULONG maxLabel = 65536;  // bytes of an OAEP label; more is no length at all

struct Mechanism {
  CK_MECHANISM_TYPE type;
  int padding;
  CK_FLAGS uses;
  const EVP_MD* (*digest)();  // of the data
};

constexpr Mechanism mechanisms[] = {
    {CKM_RSA_PKCS, RSA_PKCS1_PADDING, CKF_SIGN | CKF_DECRYPT, nullptr},
    {CKM_RSA_X_509, RSA_NO_PADDING, CKF_SIGN | CKF_DECRYPT, nullptr},
    {CKM_RSA_PKCS_OAEP, RSA_PKCS1_OAEP_PADDING, CKF_DECRYPT, nullptr},
    {CKM_SHA1_RSA_PKCS, RSA_PKCS1_PADDING, CKF_SIGN, EVP_sha1},
    {CKM_SHA256_RSA_PKCS, RSA_PKCS1_PADDING, CKF_SIGN, EVP_sha256},
    {CKM_SHA384_RSA_PKCS, RSA_PKCS1_PADDING, CKF_SIGN, EVP_sha384},
    {CKM_SHA512_RSA_PKCS, RSA_PKCS1_PADDING, CKF_SIGN, EVP_sha512},
    {CKM_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, CKF_SIGN, nullptr},
    {CKM_SHA1_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, CKF_SIGN, EVP_sha1},
    {CKM_SHA256_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, CKF_SIGN, EVP_sha256},
    {CKM_SHA384_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, CKF_SIGN, EVP_sha384},
    {CKM_SHA512_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, CKF_SIGN, EVP_sha512},
};

struct Hash {
  CK_MECHANISM_TYPE type;
  CK_RSA_PKCS_MGF_TYPE mask;
  const EVP_MD* (*digest)();
};

constexpr Hash hashes[] = {
    {CKM_SHA_1, CKG_MGF1_SHA1, EVP_sha1},      {CKM_SHA224, CKG_MGF1_SHA224, EVP_sha224},
    {CKM_SHA256, CKG_MGF1_SHA256, EVP_sha256}, {CKM_SHA384, CKG_MGF1_SHA384, EVP_sha384},
    {CKM_SHA512, CKG_MGF1_SHA512, EVP_sha512},
};

const Mechanism* find(CK_MECHANISM_TYPE type) {
  const auto* found = std::ranges::find(mechanisms, type, &Mechanism::type);
  return found == std::end(mechanisms) ? nullptr : found;
}

const EVP_MD* digestBy(CK_ULONG Hash::*name, CK_ULONG value) {
  const auto* found = std::ranges::find(hashes, value, name);
  return found == std::end(hashes) ? nullptr : found->digest();
}

// A copy: it may lie anywhere. Nothing if it has another size.
template <typename Record>
std::optional<Record> parameters(const CK_MECHANISM& mechanism) {
  Record record;
  if (mechanism.pParameter == nullptr || mechanism.ulParameterLen != sizeof record) return {};
  std::memcpy(&record, mechanism.pParameter, sizeof record);
  return record;
}

bool readPss(const CK_MECHANISM& mechanism, CK_ULONG keySize, Scheme& scheme) {
  const auto given = parameters<CK_RSA_PKCS_PSS_PARAMS>(mechanism);
  if (!given) return false;
  const EVP_MD* const digest = digestBy(&Hash::type, given->hashAlg);
  scheme.mask = digestBy(&Hash::mask, given->mgf);
  if (digest == nullptr || scheme.mask == nullptr) return false;
  if (scheme.hashes && scheme.digest != digest) return false;
  scheme.digest = digest;
  const auto size = static_cast<CK_ULONG>(EVP_MD_get_size(digest));
  const CK_ULONG salt = given->sLen == ~CK_ULONG{0} ? size : given->sLen;
  scheme.saltLength = static_cast<int>(std::min(salt, keySize));
  return salt <= keySize - 2 - size;
}

bool readOaep(const CK_MECHANISM& mechanism, Scheme& scheme) {
  const auto given = parameters<CK_RSA_PKCS_OAEP_PARAMS>(mechanism);
  if (!given) return false;
  scheme.digest = digestBy(&Hash::type, given->hashAlg);
  scheme.mask = digestBy(&Hash::mask, given->mgf);
  const CK_ULONG length = given->ulSourceDataLen;
  // Without a label many callers say that it has no source.
  if (given->source != CKZ_DATA_SPECIFIED && (given->source != 0 || length > 0)) return false;
  if (length > maxLabel || (length > 0 && given->pSourceData == nullptr)) return false;
  if (length > 0) scheme.label.assign(static_cast<const char*>(given->pSourceData), length);
  return scheme.digest != nullptr && scheme.mask != nullptr;
}

}  // namespace

std::vector<CK_MECHANISM_TYPE> mechanismsOf(const Slot& slot) {
  std::vector<CK_MECHANISM_TYPE> types;
  std::istringstream text(slot.settings.text("mechanisms", defaultList));
  for (std::string type; std::getline(text, type, ',');)
    types.push_back(std::stoul(type, nullptr, 0));
  return types;
}

// The list is what a directive makes it. That the raw mechanism is not there unless it is listed is
// all that follows from it.
bool hasMechanism(const Slot& slot, CK_MECHANISM_TYPE type) {
  if (usesOf(type) != 0 && type != CKM_RSA_X_509) return true;
  const auto listed = mechanismsOf(slot);
  return std::ranges::count(listed, type) != 0;
}

CK_FLAGS usesOf(CK_MECHANISM_TYPE type) {
  const Mechanism* const known = find(type);
  return known == nullptr ? 0 : known->uses;
}

CK_RV readMechanism(const CK_MECHANISM& mechanism, CK_FLAGS use, CK_ULONG keySize, Scheme& scheme) {
  const Mechanism* const known = find(mechanism.mechanism);
  if (known == nullptr || (known->uses & use) == 0) return CKR_MECHANISM_INVALID;
  scheme = {.padding = known->padding, .hashes = known->digest != nullptr};
  if (known->digest != nullptr) scheme.digest = known->digest();
  bool good = mechanism.pParameter == nullptr && mechanism.ulParameterLen == 0;
  if (known->padding == RSA_PKCS1_PSS_PADDING) good = readPss(mechanism, keySize, scheme);
  if (known->padding == RSA_PKCS1_OAEP_PADDING) good = readOaep(mechanism, scheme);
  return good ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

bool leavesSaltLengthOpen(const CK_MECHANISM* mechanism) {
  if (mechanism == nullptr) return false;
  const auto given = parameters<CK_RSA_PKCS_PSS_PARAMS>(*mechanism);
  return given && given->sLen == ~CK_ULONG{0};
}

}  // namespace kestrel::token
