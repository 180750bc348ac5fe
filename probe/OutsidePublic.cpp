#include "probe/OutsidePublic.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <vector>

#include "probe/OutsideHandles.h"
#include "probe/OutsideSymmetric.h"

namespace kestrel::probe::outside {

namespace {

using Kind = SignatureForm::Kind;
using EcSignature = std::unique_ptr<ECDSA_SIG, Release<ECDSA_SIG_free>>;
using KeyInfo = std::unique_ptr<PKCS8_PRIV_KEY_INFO, Release<PKCS8_PRIV_KEY_INFO_free>>;
using MessageContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;

Context contextOf(EVP_PKEY* key) {
  Context made(EVP_PKEY_CTX_new_from_pkey(context(), key, nullptr));
  if (made == nullptr) fail("no use of a key");
  return made;
}

// The length of each of the two numbers of a signature.
std::size_t numberLength(EVP_PKEY* key) {
  const char* const order =
      EVP_PKEY_is_a(key, "EC") == 1 ? OSSL_PKEY_PARAM_EC_ORDER : OSSL_PKEY_PARAM_FFC_Q;
  return number(key, order).size();
}

// DSA and ECDSA write their numbers in the same DER.
Bytes numbersOf(View der, std::size_t length) {
  const unsigned char* at = raw(der);
  const EcSignature signature(d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(der.size())));
  if (signature == nullptr) fail("no two numbers");
  Bytes numbers(2 * length, '\0');
  const int each = static_cast<int>(length);
  BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), room(numbers), each);
  BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), room(numbers) + length, each);
  return numbers;
}

Bytes derOf(View numbers) {
  const EcSignature signature(ECDSA_SIG_new());
  const std::size_t length = numbers.size() / 2;
  Number r = numberOf(numbers.substr(0, length)), s = numberOf(numbers.substr(length));
  ECDSA_SIG_set0(signature.get(), r.release(), s.release());
  unsigned char* encoded = nullptr;
  const int size = i2d_ECDSA_SIG(signature.get(), &encoded);
  if (size < 0) fail("no DER");
  const std::unique_ptr<unsigned char, decltype([](void* p) { OPENSSL_free(p); })> owner(encoded);
  return {reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)};
}

void setForm(EVP_PKEY_CTX* use, const SignatureForm& form) {
  std::vector<OSSL_PARAM> parameters;
  int padding = form.kind == Kind::pkcs1 ? RSA_PKCS1_PADDING
                : form.kind == Kind::pss ? RSA_PKCS1_PSS_PADDING
                                         : RSA_NO_PADDING;
  int salt = form.saltLength;
  if (form.kind != Kind::numbers) {
    parameters.push_back(OSSL_PARAM_construct_int(OSSL_SIGNATURE_PARAM_PAD_MODE, &padding));
    if (form.digest != nullptr) {
      parameters.push_back(word(OSSL_SIGNATURE_PARAM_DIGEST, form.digest));
    }
  }
  if (form.kind == Kind::pss) {
    parameters.push_back(word(OSSL_SIGNATURE_PARAM_MGF1_DIGEST, form.mgf));
    parameters.push_back(OSSL_PARAM_construct_int(OSSL_SIGNATURE_PARAM_PSS_SALTLEN, &salt));
  }
  parameters.push_back(OSSL_PARAM_construct_end());
  require(EVP_PKEY_CTX_set_params(use, parameters.data()), "no signature of that form");
}

Bytes signPure(EVP_PKEY* key, View input) {
  const MessageContext signing(EVP_MD_CTX_new());
  Bytes result(256, '\0');
  std::size_t length = result.size();
  if (EVP_DigestSignInit_ex(signing.get(), nullptr, nullptr, context(), nullptr, key, nullptr) !=
          1 ||
      EVP_DigestSign(signing.get(), room(result), &length, raw(input), input.size()) != 1) {
    fail("no signature");
  }
  result.resize(length);
  return result;
}

bool verifiesPure(EVP_PKEY* key, View input, View signature) {
  const MessageContext verifying(EVP_MD_CTX_new());
  require(
      EVP_DigestVerifyInit_ex(verifying.get(), nullptr, nullptr, context(), nullptr, key, nullptr),
      "no verification");
  return EVP_DigestVerify(verifying.get(), raw(signature), signature.size(), raw(input),
                          input.size()) == 1;
}

Bytes inputOf(const SignatureForm& form, View input) {
  return form.hashes ? digest(form.digest, input) : Bytes(input);
}

void setForm(EVP_PKEY_CTX* use, const RsaForm& form) {
  std::vector<OSSL_PARAM> parameters;
  int padding = form.kind == RsaForm::Kind::pkcs1  ? RSA_PKCS1_PADDING
                : form.kind == RsaForm::Kind::oaep ? RSA_PKCS1_OAEP_PADDING
                                                   : RSA_NO_PADDING;
  parameters.push_back(OSSL_PARAM_construct_int(OSSL_ASYM_CIPHER_PARAM_PAD_MODE, &padding));
  if (form.kind == RsaForm::Kind::oaep) {
    parameters.push_back(word(OSSL_ASYM_CIPHER_PARAM_OAEP_DIGEST, form.digest));
    parameters.push_back(word(OSSL_ASYM_CIPHER_PARAM_MGF1_DIGEST, form.mgf));
    parameters.push_back(octets(OSSL_ASYM_CIPHER_PARAM_OAEP_LABEL, form.label));
  }
  parameters.push_back(OSSL_PARAM_construct_end());
  require(EVP_PKEY_CTX_set_params(use, parameters.data()), "no encryption of that form");
}

}  // namespace

Bytes sign(EVP_PKEY* key, const SignatureForm& form, View message) {
  if (form.kind == Kind::pure) return signPure(key, message);
  const Context use = contextOf(key);
  require(EVP_PKEY_sign_init(use.get()), "no signature");
  setForm(use.get(), form);
  const Bytes input = inputOf(form, message);
  Bytes result(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = result.size();
  require(EVP_PKEY_sign(use.get(), room(result), &length, raw(input), input.size()),
          "no signature");
  result.resize(length);
  return form.kind == Kind::numbers ? numbersOf(result, numberLength(key)) : result;
}

bool verifies(EVP_PKEY* key, const SignatureForm& form, View message, View signature) {
  bool right = false;
  if (form.kind == Kind::pure) {
    right = verifiesPure(key, message, signature);
  } else {
    const Context use = contextOf(key);
    require(EVP_PKEY_verify_init(use.get()), "no verification");
    setForm(use.get(), form);
    const Bytes input = inputOf(form, message);
    const Bytes told = form.kind == Kind::numbers ? derOf(signature) : Bytes(signature);
    right = EVP_PKEY_verify(use.get(), raw(told), told.size(), raw(input), input.size()) == 1;
  }
  ERR_clear_error();
  return right;
}

Bytes encrypt(EVP_PKEY* key, const RsaForm& form, View input) {
  const Context use = contextOf(key);
  require(EVP_PKEY_encrypt_init(use.get()), "no encryption");
  setForm(use.get(), form);
  Bytes result(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = result.size();
  require(EVP_PKEY_encrypt(use.get(), room(result), &length, raw(input), input.size()),
          "no encryption");
  result.resize(length);
  return result;
}

Bytes decrypt(EVP_PKEY* key, const RsaForm& form, View input) {
  const Context use = contextOf(key);
  require(EVP_PKEY_decrypt_init(use.get()), "no decryption");
  setForm(use.get(), form);
  Bytes result(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
  std::size_t length = result.size();
  require(EVP_PKEY_decrypt(use.get(), room(result), &length, raw(input), input.size()),
          "does not decrypt");
  result.resize(length);
  return result;
}

Bytes agree(EVP_PKEY* own, EVP_PKEY* peer) {
  const Context use = contextOf(own);
  Bytes result(1024, '\0');
  std::size_t length = result.size();
  if (EVP_PKEY_derive_init(use.get()) != 1 || EVP_PKEY_derive_set_peer(use.get(), peer) != 1 ||
      EVP_PKEY_derive(use.get(), room(result), &length) != 1) {
    fail("no agreement");
  }
  result.resize(length);
  return result;
}

Bytes privateKeyInfo(EVP_PKEY* key) {
  const KeyInfo info(EVP_PKEY2PKCS8(key));
  const int length = info == nullptr ? -1 : i2d_PKCS8_PRIV_KEY_INFO(info.get(), nullptr);
  if (length < 0) fail("no PrivateKeyInfo");
  Bytes result(static_cast<std::size_t>(length), '\0');
  unsigned char* at = room(result);
  i2d_PKCS8_PRIV_KEY_INFO(info.get(), &at);
  return result;
}

OutsideKey keyOfInfo(View bytes) {
  const unsigned char* at = raw(bytes);
  const KeyInfo info(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &at, static_cast<long>(bytes.size())));
  OutsideKey key(info == nullptr ? nullptr : EVP_PKCS82PKEY_ex(info.get(), context(), nullptr));
  ERR_clear_error();
  return key;
}

}  // namespace kestrel::probe::outside
