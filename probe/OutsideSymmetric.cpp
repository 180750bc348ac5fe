#include "probe/OutsideSymmetric.h"

#include <algorithm>
#include <array>
#include <vector>

#include "probe/OutsideHandles.h"

namespace kestrel::probe::outside {

namespace {

using DigestAlgorithm = std::unique_ptr<EVP_MD, Release<EVP_MD_free>>;
using Mac = std::unique_ptr<EVP_MAC, Release<EVP_MAC_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, Release<EVP_MAC_CTX_free>>;
using CipherAlgorithm = std::unique_ptr<EVP_CIPHER, Release<EVP_CIPHER_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>>;

Bytes mac(const char* name, View key, View input, std::vector<OSSL_PARAM> parameters) {
  parameters.push_back(OSSL_PARAM_construct_end());
  const Mac algorithm(EVP_MAC_fetch(context(), name, nullptr));
  const MacContext making(EVP_MAC_CTX_new(algorithm.get()));
  Bytes result(EVP_MAX_MD_SIZE, '\0');
  std::size_t length = 0;
  if (making == nullptr ||
      EVP_MAC_init(making.get(), raw(key), key.size(), parameters.data()) != 1 ||
      EVP_MAC_update(making.get(), raw(input), input.size()) != 1 ||
      EVP_MAC_final(making.get(), room(result), &length, result.size()) != 1) {
    fail("no MAC");
  }
  result.resize(length);
  return result;
}

// A cipher under way.
class Ciphering {
 public:
  Ciphering(const Cipher& cipher, bool encrypts)
      : cipher_(cipher),
        encrypts_(encrypts),
        algorithm_(EVP_CIPHER_fetch(context(), cipher.name.c_str(), nullptr)),
        context_(EVP_CIPHER_CTX_new()) {
    if (algorithm_ == nullptr) fail("no such cipher");
    EVP_CIPHER_CTX_set_flags(context_.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    require(initialize(algorithm_.get(), nullptr, nullptr), "no cipher");
    EVP_CIPHER_CTX_set_padding(context_.get(), cipher.padded ? 1 : 0);
  }

  // `input` is without its tag, which `tag` is when it decrypts.
  Bytes run(View input, View tag) {
    setLengths(tag);
    // Named again, the algorithm would begin anew and forget the lengths.
    require(initialize(nullptr, raw(cipher_.key), cipher_.iv.empty() ? nullptr : raw(cipher_.iv)),
            "no cipher with that key");
    if (isCcm()) require(update(nullptr, {}, input.size()), "no length");
    if (!cipher_.aad.empty()) require(update(nullptr, cipher_.aad), "no additional data");
    Bytes result(input.size() + 64, '\0');
    int length = 0;
    // CCM wants the call even for no data; others have nothing to do then.
    if (!input.empty() || isCcm()) {
      require(EVP_CipherUpdate(context_.get(), room(result), &length, raw(input),
                               static_cast<int>(input.size())),
              "no result");
    }
    int last = 0;
    if (!isCcm()) {
      require(EVP_CipherFinal_ex(context_.get(), room(result) + length, &last), "no last block");
    }
    result.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
    return result;
  }

  Bytes tag() {
    Bytes result(cipher_.tagLength, '\0');
    require(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_GET_TAG,
                                static_cast<int>(result.size()), room(result)),
            "no tag");
    return result;
  }

 private:
  bool isCcm() const { return EVP_CIPHER_get_mode(algorithm_.get()) == EVP_CIPH_CCM_MODE; }

  int initialize(const EVP_CIPHER* algorithm, const unsigned char* key, const unsigned char* iv) {
    std::array<OSSL_PARAM, 2> parameters{OSSL_PARAM_construct_end(), OSSL_PARAM_construct_end()};
    if (cipher_.stealing != nullptr) {
      parameters[0] = word(OSSL_CIPHER_PARAM_CTS_MODE, cipher_.stealing);
    }
    return EVP_CipherInit_ex2(context_.get(), algorithm, key, iv, encrypts_ ? 1 : 0,
                              parameters.data());
  }

  void setLengths(View tag) {
    if (EVP_CIPHER_CTX_get_key_length(context_.get()) != static_cast<int>(cipher_.key.size())) {
      require(EVP_CIPHER_CTX_set_key_length(context_.get(), static_cast<int>(cipher_.key.size())),
              "no key of that length");
    }
    if (cipher_.tagLength == 0) return;
    const int ivLength = static_cast<int>(cipher_.iv.size());
    require(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_IVLEN, ivLength, nullptr),
            "no IV of that length");
    if (tag.empty() && !isCcm()) return;
    require(EVP_CIPHER_CTX_ctrl(context_.get(), EVP_CTRL_AEAD_SET_TAG,
                                static_cast<int>(cipher_.tagLength),
                                tag.empty() ? nullptr : const_cast<char*>(tag.data())),
            "no tag of that length");
  }

  int update(unsigned char* output, View input) { return update(output, input, input.size()); }
  int update(unsigned char* output, View input, std::size_t length) {
    int written = 0;
    return EVP_CipherUpdate(context_.get(), output, &written, input.empty() ? nullptr : raw(input),
                            static_cast<int>(length));
  }

  const Cipher& cipher_;
  bool encrypts_;
  CipherAlgorithm algorithm_;
  CipherContext context_;
};

void exclusiveOr(Bytes& bytes, View other) {
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(bytes[i] ^ other[i]);
}

}  // namespace

Bytes digest(const char* name, View input) {
  const DigestAlgorithm algorithm(EVP_MD_fetch(context(), name, nullptr));
  Bytes result(EVP_MAX_MD_SIZE, '\0');
  unsigned length = 0;
  if (algorithm == nullptr || EVP_Digest(input.data(), input.size(), room(result), &length,
                                         algorithm.get(), nullptr) != 1) {
    fail("no such digest");
  }
  result.resize(length);
  return result;
}

Bytes hmac(const char* digest, View key, View input) {
  return mac("HMAC", key, input, {word(OSSL_MAC_PARAM_DIGEST, digest)});
}

Bytes cmac(const char* cipher, View key, View input) {
  return mac("CMAC", key, input, {word(OSSL_MAC_PARAM_CIPHER, cipher)});
}

Bytes gmac(const char* cipher, View key, View iv, View input) {
  return mac("GMAC", key, input,
             {word(OSSL_MAC_PARAM_CIPHER, cipher), octets(OSSL_MAC_PARAM_IV, iv)});
}

Bytes poly1305(View key, View input) {
  return mac("POLY1305", key, input, {});
}

Bytes cbcMac(const char* cipher, View key, View input) {
  const CipherAlgorithm algorithm(EVP_CIPHER_fetch(context(), cipher, nullptr));
  if (algorithm == nullptr) fail("no such cipher");
  const auto block = static_cast<std::size_t>(EVP_CIPHER_get_block_size(algorithm.get()));
  Bytes filled(input);
  filled.resize((input.size() + block - 1) / block * block, '\0');
  const Bytes encrypted = encrypt({cipher, Bytes(key), Bytes(block, '\0')}, filled);
  return encrypted.substr(encrypted.size() - block);
}

Bytes xcbcMac(View key, View input) {
  constexpr std::size_t block = 16;
  const auto derived = [&](char number) {
    return encrypt({"AES-128-ECB", Bytes(key)}, Bytes(block, number));
  };
  const Bytes first = derived(1);
  Bytes state(block, '\0');
  while (input.size() > block) {
    exclusiveOr(state, input.substr(0, block));
    state = encrypt({"AES-128-ECB", first}, state);
    input.remove_prefix(block);
  }
  Bytes last(input);
  const bool isWhole = last.size() == block;
  if (!isWhole) {
    last += '\x80';
    last.resize(block, '\0');
  }
  exclusiveOr(state, last);
  exclusiveOr(state, derived(isWhole ? 2 : 3));
  return encrypt({"AES-128-ECB", first}, state);
}

Bytes encrypt(const Cipher& cipher, View input) {
  Ciphering ciphering(cipher, true);
  Bytes result = ciphering.run(input, {});
  if (cipher.tagLength > 0) result += ciphering.tag();
  return result;
}

Bytes decrypt(const Cipher& cipher, View input) {
  if (input.size() < cipher.tagLength) fail("no room for a tag");
  const std::size_t length = input.size() - cipher.tagLength;
  return Ciphering(cipher, false).run(input.substr(0, length), input.substr(length));
}

}  // namespace kestrel::probe::outside
