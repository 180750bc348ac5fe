// Owners of OpenSSL's objects: one alias per type.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

// Deleter that calls OpenSSL's own function for the type.
template <auto release>
struct OpensslDeleter {
  template <typename Object>
  void operator()(Object* object) const {
    release(object);
  }
};

using BioOwner = std::unique_ptr<BIO, OpensslDeleter<BIO_free>>;
using CertificateOwner = std::unique_ptr<X509, OpensslDeleter<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using KeyContextOwner = std::unique_ptr<EVP_PKEY_CTX, OpensslDeleter<EVP_PKEY_CTX_free>>;
using DigestContextOwner = std::unique_ptr<EVP_MD_CTX, OpensslDeleter<EVP_MD_CTX_free>>;

// Leaves OpenSSL's error queue of this thread empty at the end of a scope that may fail.
class OpensslErrorScope {
 public:
  OpensslErrorScope() = default;
  ~OpensslErrorScope() { ERR_clear_error(); }
  OpensslErrorScope(const OpensslErrorScope&) = delete;
  OpensslErrorScope& operator=(const OpensslErrorScope&) = delete;
};
