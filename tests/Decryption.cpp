#include "tests/Decryption.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "harness/Openssl.h"
#include "harness/Report.h"

namespace kestrel {

namespace {

using namespace std::string_view_literals;

// The terminating NUL is encrypted too.
constexpr std::string_view message = "this is a test string\0"sv;

// OpenSSL encrypts with no RSA key above 16384 bits.
constexpr int maxKeyBytes = 2048;

constexpr CK_RV messageTooLong = ~CK_RV{0};

// The modulus and exponent of a key that its certificate keeps for RSASSA-PSS; null for other keys.
KeyOwner plainRsaKey(EVP_PKEY* key) {
  if (EVP_PKEY_is_a(key, "RSA-PSS") == 0) return nullptr;
  OSSL_PARAM* parameters = nullptr;
  EVP_PKEY_todata(key, EVP_PKEY_PUBLIC_KEY, &parameters);
  const KeyContextOwner context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* plain = nullptr;
  if (context != nullptr && EVP_PKEY_fromdata_init(context.get()) == 1) {
    EVP_PKEY_fromdata(context.get(), &plain, EVP_PKEY_PUBLIC_KEY, parameters);
  }
  OSSL_PARAM_free(parameters);
  return KeyOwner(plain);
}

// Encrypts with the RSA key of a certificate; empty when OpenSSL will not, be it that the
// certificate has no key or one of another kind.
std::vector<CK_BYTE> encrypt(EVP_PKEY* key, int padding, std::string_view text) {
  const OpensslErrorScope errors;
  const KeyOwner plain = plainRsaKey(key);
  if (plain != nullptr) key = plain.get();
  const KeyContextOwner context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
  const int size = EVP_PKEY_get_size(key);
  if (context == nullptr || size <= 0 || size > maxKeyBytes ||
      EVP_PKEY_encrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), padding) <= 0) {
    return {};
  }
  std::vector<CK_BYTE> ciphertext(static_cast<std::size_t>(size));
  std::size_t length = ciphertext.size();
  if (EVP_PKEY_encrypt(context.get(), ciphertext.data(), &length,
                       reinterpret_cast<const CK_BYTE*>(text.data()), text.size()) <= 0) {
    return {};
  }
  ciphertext.resize(length);
  return ciphertext;
}

// The encrypted message; nothing when it is too long for any key. Ends the process when the
// certificate's key cannot encrypt it.
std::optional<std::vector<CK_BYTE>> encryptMessage(EVP_PKEY* key, int padding) {
  if (message.size() > std::numeric_limits<std::int32_t>::max()) {
    sayError({"Error: Message length exceeds maximum limit.\n"});
    return std::nullopt;
  }
  std::vector<CK_BYTE> ciphertext = encrypt(key, padding, message);
  if (ciphertext.empty()) requireResult("Error encrypting message", CKR_FUNCTION_FAILED);
  return ciphertext;
}

// One decryption on the token, by calls that can be repeated after a context-specific login.
struct Decryption {
  const DecryptionWay& way;
  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE key;
  CK_MECHANISM mechanism;
  std::vector<CK_BYTE> ciphertext = {};
  Plaintext plaintext = {};

  void init() {
    CK_MECHANISM handed = mechanism;  // the retry starts from what the first attempt started from
    require(p11::C_DecryptInit, session, &handed, key);
  }

  CK_RV decryptInto(CK_BYTE* output) {
    return way.decrypt(session, ciphertext.data(), ciphertext.size(), output, &plaintext.length);
  }

  // Asks for the plaintext's length and sees to it that there is room. The storage holds a whole
  // plaintext even for a module that announces less and gives it at the end all the same.
  void querySize() {
    const CK_RV result = decryptInto(nullptr);
    requireResult(way.decrypt.name, ifSane(result, plaintext.length <= maxAnswerLength));
    plaintext.room = std::max(plaintext.room, plaintext.length);
    plaintext.storage.resize(std::max<std::size_t>(plaintext.room, ciphertext.size()));
  }

  // The size query and the decryption, whose result is the caller's to report.
  CK_RV decrypt() {
    querySize();
    const CK_RV result = decryptInto(plaintext.storage.data());
    return ifSane(result, plaintext.length <= plaintext.room);
  }
};

CK_RV decryptMessage(TestManager& manager, const DecryptionWay& way, DecryptionMechanism mechanism,
                     CK_SESSION_HANDLE session, const CertKeyRecord& record, EVP_PKEY* publicKey) {
  Decryption decryption{way, session, record.privateKeyHandle, {mechanism.type, nullptr, 0}};
  if (mechanism.parameters) {
    decryption.mechanism.pParameter = &*mechanism.parameters;
    decryption.mechanism.ulParameterLen = sizeof *mechanism.parameters;
  }
  decryption.init();
  std::optional<std::vector<CK_BYTE>> ciphertext =
      encryptMessage(publicKey, mechanism.opensslPadding);
  if (!ciphertext) return messageTooLong;
  decryption.ciphertext = *std::move(ciphertext);
  CK_RV result = decryption.decrypt();
  if (result == CKR_USER_NOT_LOGGED_IN) {
    manager.loginContextSpecific(session, record.slotIndex);
    decryption.init();
    result = decryption.decrypt();
  }
  requireResult(way.decrypt.name, result);
  way.finish(session, decryption.plaintext);
  return CKR_OK;
}

}  // namespace

CK_RV decryptEach(TestManager& manager, const DecryptionWay& way, CK_SESSION_HANDLE session,
                  std::uint32_t slotPosition) {
  for (const CertKeyRecord& record : manager.keysToTest(session, slotPosition)) {
    report << std::dec << "\n--------- Private Key Handle: " << record.privateKeyHandle
           << " --------- Public Key Handle: " << record.publicKeyHandle << " ---------\n\n";
    const KeyOwner publicKey = manager.getPublicKey(session, record);
    for (const DecryptionMechanism& mechanism : way.mechanisms) {
      const CK_RV result =
          decryptMessage(manager, way, mechanism, session, record, publicKey.get());
      if (result != CKR_OK) return result;
    }
  }
  return CKR_OK;
}

}  // namespace kestrel
