#include "token/Rsa.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace kestrel::token {

namespace {

using Step = int (*)(EVP_PKEY_CTX*);
using Transform = int (*)(EVP_PKEY_CTX*, unsigned char*, std::size_t*, const unsigned char*,
                          std::size_t);

bool applyOaep(EVP_PKEY_CTX* context, const Scheme& scheme) {
  if (EVP_PKEY_CTX_set_rsa_oaep_md(context, scheme.digest) != 1) return false;
  if (scheme.label.empty()) return true;
  void* const label = OPENSSL_memdup(scheme.label.data(), scheme.label.size());
  return EVP_PKEY_CTX_set0_rsa_oaep_label(context, label, static_cast<int>(scheme.label.size())) ==
         1;
}

bool apply(EVP_PKEY_CTX* context, const Scheme& scheme) {
  if (EVP_PKEY_CTX_set_rsa_padding(context, scheme.padding) != 1) return false;
  if (scheme.padding == RSA_PKCS1_OAEP_PADDING) {
    if (!applyOaep(context, scheme)) return false;
  } else if (scheme.digest != nullptr) {
    if (EVP_PKEY_CTX_set_signature_md(context, scheme.digest) != 1) return false;
  }
  if (scheme.mask != nullptr && EVP_PKEY_CTX_set_rsa_mgf1_md(context, scheme.mask) != 1) {
    return false;
  }
  return scheme.padding != RSA_PKCS1_PSS_PADDING ||
         EVP_PKEY_CTX_set_rsa_pss_saltlen(context, scheme.saltLength) == 1;
}

// One private-key operation.
bool transform(const Key& key, const Scheme& scheme, std::string_view data, Step begin,
               Transform run, std::string& out) {
  const OpensslErrorScope errors;
  const KeyContextOwner context(EVP_PKEY_CTX_new(keyPair(key), nullptr));
  std::size_t length = keySize(key);
  out.resize(length);
  const bool good = begin(context.get()) == 1 && apply(context.get(), scheme) &&
                    run(context.get(), reinterpret_cast<unsigned char*>(out.data()), &length,
                        reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1;
  if (good) out.resize(length);
  return good;
}

// Whether the padding of a signature takes data of that length.
bool fits(const Scheme& scheme, CK_ULONG length, CK_ULONG room) {
  switch (scheme.padding) {
    case RSA_PKCS1_PSS_PADDING:
      return length == static_cast<CK_ULONG>(EVP_MD_get_size(scheme.digest));
    case RSA_NO_PADDING:
      return length <= room;
    default:
      return length <= room - RSA_PKCS1_PADDING_SIZE;
  }
}

}  // namespace

EVP_PKEY* keyPair(const Key& key) {
  KeyOwner& loaded = token().keys[key.name];
  if (loaded == nullptr) {
    const BioOwner pem(BIO_new_mem_buf(privateKeyPem(key.name), -1));
    loaded.reset(PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr));
  }
  return loaded.get();
}

CK_ULONG keySize(const Key& key) {
  return static_cast<CK_ULONG>(EVP_PKEY_get_size(keyPair(key)));
}

CK_RV signatureOf(const Key& key, const Scheme& scheme, std::string_view data, std::string& out) {
  const CK_ULONG size = keySize(key);
  if (!fits(scheme, data.size(), size)) return CKR_DATA_LEN_RANGE;
  std::string block;
  if (scheme.padding == RSA_NO_PADDING) block.assign(size - data.size(), '\0');
  block.append(data);
  const bool good = transform(key, scheme, block, EVP_PKEY_sign_init, EVP_PKEY_sign, out);
  return good ? CKR_OK : CKR_DATA_INVALID;
}

CK_RV plaintextOf(const Key& key, const Scheme& scheme, std::string_view data, std::string& out) {
  if (data.size() != keySize(key)) return CKR_ENCRYPTED_DATA_LEN_RANGE;
  const bool good = transform(key, scheme, data, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, out);
  return good ? CKR_OK : CKR_ENCRYPTED_DATA_INVALID;
}

}  // namespace kestrel::token
