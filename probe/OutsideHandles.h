// OpenSSL's objects with their owners, and bytes as it takes them: for the sources of the other
// side alone.
#pragma once

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>
#include <openssl/params.h>

#include <memory>

#include "probe/Outside.h"

namespace kestrel::probe::outside {

using Context = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;
using Number = std::unique_ptr<BIGNUM, Release<BN_clear_free>>;
using Builder = std::unique_ptr<OSSL_PARAM_BLD, Release<OSSL_PARAM_BLD_free>>;
using Parameters = std::unique_ptr<OSSL_PARAM, Release<OSSL_PARAM_free>>;

inline const unsigned char* raw(View bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

inline unsigned char* room(Bytes& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}

// OpenSSL takes what it only reads through pointers that are not const.
inline OSSL_PARAM octets(const char* name, View bytes) {
  const char* const begin = bytes.data() == nullptr ? "" : bytes.data();
  return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(begin), bytes.size());
}
inline OSSL_PARAM word(const char* name, View text) {
  return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(text.data()), text.size());
}

inline Number numberOf(View bytes) {
  return Number(BN_bin2bn(raw(bytes), static_cast<int>(bytes.size()), nullptr));
}

// Fails unless an OpenSSL function said 1.
inline void require(int result, const char* what) {
  if (result != 1) fail(what);
}

}  // namespace kestrel::probe::outside
