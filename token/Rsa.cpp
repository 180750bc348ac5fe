#include "token/Rsa.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace {

struct Mechanism {
  CK_MECHANISM_TYPE type;
  int padding;
  const EVP_MD* (*digest)();
  bool hashes;  // the token hashes the data itself
};

constexpr Mechanism mechanisms[] = {
    {CKM_RSA_PKCS, RSA_PKCS1_PADDING, nullptr, false},
    {CKM_RSA_X_509, RSA_NO_PADDING, nullptr, false},
    {CKM_RSA_PKCS_OAEP, RSA_PKCS1_OAEP_PADDING, nullptr, false},
    {CKM_SHA1_RSA_PKCS, RSA_PKCS1_PADDING, EVP_sha1, true},
    {CKM_SHA256_RSA_PKCS, RSA_PKCS1_PADDING, EVP_sha256, true},
    {CKM_SHA384_RSA_PKCS, RSA_PKCS1_PADDING, EVP_sha384, true},
    {CKM_SHA512_RSA_PKCS, RSA_PKCS1_PADDING, EVP_sha512, true},
    {CKM_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, EVP_sha256, false},
    {CKM_SHA1_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, EVP_sha1, true},
    {CKM_SHA256_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, EVP_sha256, true},
    {CKM_SHA384_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, EVP_sha384, true},
    {CKM_SHA512_RSA_PKCS_PSS, RSA_PKCS1_PSS_PADDING, EVP_sha512, true},
};

const Mechanism* find(CK_MECHANISM_TYPE type) {
  const auto* found = std::ranges::find(mechanisms, type, &Mechanism::type);
  return found == std::end(mechanisms) ? nullptr : found;
}

EVP_PKEY* privateKey(const Key& key) {
  static auto& cache = *new std::map<std::string, EVP_PKEY*>;  // until the very end
  EVP_PKEY*& loaded = cache[key.name];
  if (loaded == nullptr) {
    BIO* pem = BIO_new_mem_buf(privateKeyPem(key.name), -1);
    loaded = PEM_read_bio_PrivateKey(pem, nullptr, nullptr, nullptr);
    BIO_free(pem);
  }
  return loaded;
}

std::string digestOf(const EVP_MD* digest, const std::string& data) {
  std::string hash(EVP_MAX_MD_SIZE, '\0');
  unsigned length = 0;
  EVP_Digest(data.data(), data.size(), reinterpret_cast<unsigned char*>(hash.data()), &length,
             digest, nullptr);
  hash.resize(length);
  return hash;
}

using Step = int (*)(EVP_PKEY_CTX*);
using Transform = int (*)(EVP_PKEY_CTX*, unsigned char*, std::size_t*, const unsigned char*,
                          std::size_t);

// One private-key operation on `data` under the padding of `mechanism`.
std::string transform(const Session::Operation& operation, const Mechanism& mechanism,
                      const std::string& data, Step begin, Transform run, CK_RV& result) {
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(privateKey(operation.key->key), nullptr);
  std::string out(keySize(operation.key->key), '\0');
  std::size_t length = out.size();
  bool good = begin(context) == 1 && EVP_PKEY_CTX_set_rsa_padding(context, mechanism.padding) == 1;
  if (mechanism.padding == RSA_PKCS1_PSS_PADDING) {
    good = good && EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1;
  }
  if (mechanism.digest != nullptr) {
    good = good && EVP_PKEY_CTX_set_signature_md(context, mechanism.digest()) == 1;
  }
  good = good && run(context, reinterpret_cast<unsigned char*>(out.data()), &length,
                     reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
  EVP_PKEY_CTX_free(context);
  ERR_clear_error();
  result = good ? CKR_OK : CKR_DATA_INVALID;
  out.resize(good ? length : 0);
  return out;
}

}  // namespace

CK_ULONG keySize(const Key& key) {
  return static_cast<CK_ULONG>(EVP_PKEY_get_size(privateKey(key)));
}

CK_RV checkMechanism(const CK_MECHANISM& mechanism) {
  const Mechanism* known = find(mechanism.mechanism);
  if (known == nullptr) return CKR_MECHANISM_INVALID;
  CK_ULONG size = 0;
  if (known->padding == RSA_PKCS1_OAEP_PADDING) size = sizeof(CK_RSA_PKCS_OAEP_PARAMS);
  if (known->padding == RSA_PKCS1_PSS_PADDING) size = sizeof(CK_RSA_PKCS_PSS_PARAMS);
  const bool good =
      mechanism.ulParameterLen == size && (mechanism.pParameter != nullptr) == (size > 0);
  return good ? CKR_OK : CKR_MECHANISM_PARAM_INVALID;
}

std::string signatureOf(const Session& session, CK_RV& result) {
  const Session::Operation& operation = session.sign;
  Mechanism mechanism = *find(operation.mechanism);
  std::string data =
      mechanism.hashes ? digestOf(mechanism.digest(), operation.data) : operation.data;
  if (mechanism.type == CKM_RSA_X_509) {
    if (session.slot->settings.has("pad")) mechanism.padding = RSA_PKCS1_PADDING;
    if (!session.slot->settings.has("pad"))
      data.insert(0, keySize(operation.key->key) - data.size(), '\0');
  }
  std::string signature =
      transform(operation, mechanism, data, EVP_PKEY_sign_init, EVP_PKEY_sign, result);
  if (session.slot->settings.has("spoil") && !signature.empty()) signature.back() ^= 1;
  return signature;
}

std::string plaintext(const Session& session, CK_RV& result) {
  const Session::Operation& operation = session.decrypt;
  std::string text = transform(operation, *find(operation.mechanism), operation.data,
                               EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, result);
  if (result != CKR_OK) result = CKR_ENCRYPTED_DATA_INVALID;
  return text;
}
