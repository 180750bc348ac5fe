#include "probe/OutsideDerive.h"

#include <openssl/kdf.h>

#include <vector>

#include "probe/OutsideHandles.h"
#include "probe/OutsideSymmetric.h"

namespace kestrel::probe::outside {

namespace {

using Kdf = std::unique_ptr<EVP_KDF, Release<EVP_KDF_free>>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>>;

Bytes derive(const char* name, std::vector<OSSL_PARAM> parameters, std::size_t length) {
  parameters.push_back(OSSL_PARAM_construct_end());
  const Kdf algorithm(EVP_KDF_fetch(context(), name, nullptr));
  const KdfContext making(EVP_KDF_CTX_new(algorithm.get()));
  Bytes result(length, '\0');
  if (making == nullptr ||
      EVP_KDF_derive(making.get(), room(result), length, parameters.data()) != 1) {
    fail("no derivation");
  }
  return result;
}

Bytes bigEndian(std::size_t number) {
  Bytes bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

}  // namespace

Bytes x963(const char* digest, View secret, View info, std::size_t length) {
  return derive("X963KDF",
                {word(OSSL_KDF_PARAM_DIGEST, digest), octets(OSSL_KDF_PARAM_KEY, secret),
                 octets(OSSL_KDF_PARAM_INFO, info)},
                length);
}

Bytes hkdf(const Hkdf& form, View key, std::size_t length) {
  int mode = form.extracts && form.expands ? EVP_KDF_HKDF_MODE_EXTRACT_AND_EXPAND
             : form.extracts               ? EVP_KDF_HKDF_MODE_EXTRACT_ONLY
                                           : EVP_KDF_HKDF_MODE_EXPAND_ONLY;
  return derive("HKDF",
                {OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
                 word(OSSL_KDF_PARAM_DIGEST, form.digest), octets(OSSL_KDF_PARAM_KEY, key),
                 octets(OSSL_KDF_PARAM_SALT, form.salt), octets(OSSL_KDF_PARAM_INFO, form.info)},
                length);
}

// By hand: OpenSSL has no pipeline, and the same input is what a token is told piece by piece.
Bytes kbkdf(const Kbkdf& form, View key, std::size_t length) {
  Bytes fixed(form.label);
  fixed.append(1, '\0').append(form.context).append(bigEndian(length * 8));
  Bytes result, state = form.mode == KbkdfMode::pipeline ? fixed : Bytes();
  for (std::size_t i = 1; result.size() < length; ++i) {
    if (form.mode == KbkdfMode::pipeline) state = hmac(form.digest, key, state);
    const Bytes block = hmac(form.digest, key, Bytes(state).append(bigEndian(i)).append(fixed));
    if (form.mode == KbkdfMode::feedback) state = block;
    result += block;
  }
  result.resize(length);
  return result;
}

}  // namespace kestrel::probe::outside
