// The software token without directives against the standard, called as kestrel never calls it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>

#include "harness/Openssl.h"
#include "harness/Pkcs11.h"

namespace {

CK_UTF8CHAR pin[] = "12345678";
CK_BYTE data[1000] = {1, 2, 3};
CK_BYTE out[1000];
CK_ULONG length;

// The user is logged in to a read-write session.
struct Caller {
  void* library = dlopen(TOKEN, RTLD_NOW | RTLD_LOCAL);
  CK_FUNCTION_LIST m{};
  CK_SESSION_HANDLE session = 0;

  Caller() {
    CK_FUNCTION_LIST* list = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(&list);
    m = *list;
    m.C_Initialize(nullptr);
    m.C_OpenSession(1, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session);
    m.C_Login(session, CKU_USER, pin, 8);
  }
  ~Caller() {
    m.C_Finalize(nullptr);
    dlclose(library);
  }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  CK_OBJECT_HANDLE find(CK_OBJECT_CLASS type) {
    CK_ATTRIBUTE wanted{CKA_CLASS, &type, sizeof type};
    CK_OBJECT_HANDLE object = 0;
    CK_ULONG count = 0;
    m.C_FindObjectsInit(session, &wanted, 1);
    m.C_FindObjects(session, &object, 1, &count);
    m.C_FindObjectsFinal(session);
    return object;
  }
  std::string value(CK_OBJECT_CLASS type, CK_ATTRIBUTE_TYPE attribute) {
    CK_ATTRIBUTE wanted{attribute, nullptr, 0};
    m.C_GetAttributeValue(session, find(type), &wanted, 1);
    if (wanted.ulValueLen == CK_UNAVAILABLE_INFORMATION) return "none";
    std::string bytes(wanted.ulValueLen, '\0');
    wanted.pValue = bytes.data();
    m.C_GetAttributeValue(session, find(type), &wanted, 1);
    return bytes;
  }
  CK_RV signInit(CK_MECHANISM mechanism, CK_OBJECT_CLASS type = CKO_PRIVATE_KEY) {
    return m.C_SignInit(session, &mechanism, find(type));
  }
  CK_RV decryptInit(CK_MECHANISM mechanism) {
    return m.C_DecryptInit(session, &mechanism, find(CKO_PRIVATE_KEY));
  }
  CK_RV sign(const CK_BYTE* bytes, CK_ULONG count) {
    length = sizeof out;
    return m.C_Sign(session, const_cast<CK_BYTE*>(bytes), count, out, &length);
  }
  CK_RV signFinal() { return m.C_SignFinal(session, out, &(length = sizeof out)); }
  CK_RV decrypt(CK_ULONG count) {
    return m.C_Decrypt(session, data, count, out, &(length = sizeof out));
  }
  CK_RV initialize(CK_C_INITIALIZE_ARGS arguments) {
    m.C_Finalize(nullptr);
    return m.C_Initialize(&arguments);
  }
};

CK_MECHANISM plain(CK_MECHANISM_TYPE type) {
  return {type, nullptr, 0};
}
CK_MECHANISM pss(CK_MECHANISM_TYPE type, CK_MECHANISM_TYPE hash, CK_ULONG mask, CK_ULONG salt) {
  static CK_RSA_PKCS_PSS_PARAMS parameters;
  parameters = {hash, mask, salt};
  return {type, &parameters, sizeof parameters};
}
CK_MECHANISM oaep(CK_ULONG mask, CK_ULONG source, const char* label, CK_ULONG labelLength) {
  static CK_RSA_PKCS_OAEP_PARAMS parameters;
  parameters = {CKM_SHA256, mask, source, const_cast<char*>(label), labelLength};
  return {CKM_RSA_PKCS_OAEP, &parameters, sizeof parameters};
}

CK_RV create(void**) {
  return CKR_OK;
}
CK_RV lock(void*) {
  return CKR_OK;
}

const CK_MECHANISM sha256 = plain(CKM_SHA256_RSA_PKCS);
const CK_MECHANISM raw = plain(CKM_RSA_PKCS);
CK_ATTRIBUTE nothing{CKA_CLASS, nullptr, 8};
CK_OBJECT_HANDLE handle;
CK_SLOT_ID slot;
CK_MECHANISM_INFO info;

using Step = CK_RV (*)(Caller&);

constexpr Step search = [](Caller& c) { return c.m.C_FindObjectsInit(c.session, nullptr, 0); };
constexpr Step sign = [](Caller& c) { return c.signInit(raw); };
constexpr Step signHashed = [](Caller& c) { return c.signInit(sha256); };
constexpr Step signPss = [](Caller& c) {
  return c.signInit(pss(CKM_RSA_PKCS_PSS, CKM_SHA256, 2, 32));
};
constexpr Step decrypt = [](Caller& c) { return c.decryptInit(raw); };

const struct {
  CK_RV expected;
  Step call;
  Step before = nullptr;  // which passes
} rows[] = {
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_GetFunctionList(nullptr); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_Finalize(data); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_WaitForSlotEvent(1, nullptr, nullptr); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_WaitForSlotEvent(1, &slot, data); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_FindObjectsInit(c.session, &nothing, 1); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_FindObjects(c.session, nullptr, 1, &length); },
     search},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_FindObjects(c.session, &handle, 1, nullptr); },
     search},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_SeedRandom(c.session, nullptr, 8); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_GenerateRandom(c.session, nullptr, 8); }},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_SignUpdate(c.session, nullptr, 8); },
     signHashed},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.sign(nullptr, 8); }, sign},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_Sign(c.session, data, 8, out, nullptr); }, sign},
    {CKR_ARGUMENTS_BAD, [](auto& c) { return c.m.C_DecryptFinal(c.session, out, nullptr); },
     decrypt},
    {CKR_ARGUMENTS_BAD,
     [](auto& c) { return c.m.C_Decrypt(c.session, nullptr, 256, out, &length); }, decrypt},

    {CKR_ARGUMENTS_BAD,
     [](auto& c) {
       return c.initialize({create, lock, lock, nullptr, 2, {}});
     }},
    {CKR_ARGUMENTS_BAD,
     [](auto& c) {
       return c.initialize({{}, {}, {}, {}, 0, data});
     }},
    {CKR_CANT_LOCK,
     [](auto& c) {
       return c.initialize({create, lock, lock, lock, 0, {}});
     }},
    {CKR_OK,
     [](auto& c) {
       return c.initialize({create, lock, lock, lock, 2, {}});
     }},

    {CKR_MECHANISM_INVALID, [](auto& c) { return c.signInit(oaep(2, 1, nullptr, 0)); }},
    {CKR_MECHANISM_INVALID,
     [](auto& c) { return c.decryptInit(pss(CKM_RSA_PKCS_PSS, CKM_SHA256, 2, 32)); }},
    {CKR_MECHANISM_INVALID, [](auto& c) { return c.decryptInit(sha256); }},
    {CKR_MECHANISM_INVALID, [](auto& c) { return c.signInit(plain(CKM_RSA_X_509)); }},
    {CKR_MECHANISM_INVALID, [](auto& c) { return c.m.C_GetMechanismInfo(1, CKM_AES_CBC, &info); }},
    {CKR_MECHANISM_PARAM_INVALID,
     [](auto& c) { return c.signInit(pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA_1, 2, 32)); }},
    {CKR_MECHANISM_PARAM_INVALID,
     [](auto& c) { return c.signInit(pss(CKM_RSA_PKCS_PSS, CKM_SHA256, 99, 32)); }},
    {CKR_MECHANISM_PARAM_INVALID,
     [](auto& c) { return c.signInit(pss(CKM_RSA_PKCS_PSS, CKM_SHA256, 2, 223)); }},
    {CKR_MECHANISM_PARAM_INVALID, [](auto& c) { return c.decryptInit(oaep(2, 7, nullptr, 0)); }},
    {CKR_MECHANISM_PARAM_INVALID, [](auto& c) { return c.decryptInit(oaep(2, 1, nullptr, 9)); }},
    {CKR_KEY_HANDLE_INVALID, [](auto& c) { return c.signInit(raw, CKO_CERTIFICATE); }},
    {CKR_KEY_TYPE_INCONSISTENT, [](auto& c) { return c.signInit(raw, CKO_PUBLIC_KEY); }},

    {CKR_DATA_LEN_RANGE, [](auto& c) { return c.sign(data, 246); }, sign},
    {CKR_DATA_LEN_RANGE, [](auto& c) { return c.sign(data, 20); }, signPss},
    {CKR_ENCRYPTED_DATA_LEN_RANGE, [](auto& c) { return c.decrypt(255); }, decrypt},
    {CKR_OPERATION_NOT_INITIALIZED,
     [](auto& c) { return c.m.C_Login(c.session, CKU_CONTEXT_SPECIFIC, pin, 8); }},
    {CKR_FUNCTION_NOT_SUPPORTED, [](auto& c) { return c.m.C_DigestInit(c.session, nullptr); }},
};

// No operation outlives a call that fails.
TEST(Token, AnswersAsTheStandardHasIt) {
  for (const auto& row : rows) {
    Caller caller;
    const auto number = &row - rows;
    EXPECT_EQ(row.before == nullptr ? CKR_OK : row.before(caller), CKR_OK) << number;
    EXPECT_EQ(row.call(caller), row.expected) << number;
    EXPECT_NE(sign(caller), CKR_OPERATION_ACTIVE) << number;
    EXPECT_NE(decrypt(caller), CKR_OPERATION_ACTIVE) << number;
  }
}

// The public key as the token tells it, and what OpenSSL makes of it.
struct PublicKey {
  KeyOwner key;
  EVP_PKEY_CTX* context = nullptr;  // the digest context's
  DigestContextOwner digest{EVP_MD_CTX_new()};

  explicit PublicKey(Caller& caller) {
    const std::string der = caller.value(CKO_PUBLIC_KEY, CKA_PUBLIC_KEY_INFO);
    const auto* from = reinterpret_cast<const CK_BYTE*>(der.data());
    key.reset(d2i_PUBKEY(nullptr, &from, static_cast<long>(der.size())));
  }
  bool verifies(int padding, const EVP_MD* mask, int salt) {
    EVP_DigestVerifyInit(digest.get(), &context, EVP_sha256(), nullptr, key.get());
    EVP_PKEY_CTX_set_rsa_padding(context, padding);
    if (mask != nullptr) {
      EVP_PKEY_CTX_set_rsa_mgf1_md(context, mask);
      EVP_PKEY_CTX_set_rsa_pss_saltlen(context, salt);
    }
    return EVP_DigestVerify(digest.get(), out, length, data, sizeof data) == 1;
  }
};

TEST(Token, SignsAndDecryptsByTheParameters) {
  Caller caller;
  const struct {
    CK_ULONG mask;
    const EVP_MD* digest;
    CK_ULONG salt;
    int length;
  } salts[] = {{CKG_MGF1_SHA256, EVP_sha256(), 0, 0},
               {CKG_MGF1_SHA1, EVP_sha1(), 20, 20},
               {CKG_MGF1_SHA512, EVP_sha512(), 222, 222},
               {CKG_MGF1_SHA256, EVP_sha256(), ~CK_ULONG{0}, 32}};
  for (const auto& salt : salts) {
    caller.signInit(pss(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, salt.mask, salt.salt));
    EXPECT_EQ(caller.sign(data, sizeof data), CKR_OK);
    EXPECT_TRUE(PublicKey(caller).verifies(RSA_PKCS1_PSS_PADDING, salt.digest, salt.length));
  }
  caller.signInit(sha256);
  for (const auto& [at, part] : {std::pair(0, 0), std::pair(0, 600), std::pair(600, 400)}) {
    EXPECT_EQ(caller.m.C_SignUpdate(caller.session, data + at, static_cast<CK_ULONG>(part)),
              CKR_OK);
    EXPECT_EQ(caller.sign(data, 8), CKR_OPERATION_NOT_INITIALIZED);  // not for that
  }
  EXPECT_EQ(caller.signFinal(), CKR_OK);
  EXPECT_TRUE(PublicKey(caller).verifies(RSA_PKCS1_PADDING, nullptr, 0));

  const PublicKey key(caller);
  const KeyContextOwner context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
  EVP_PKEY_encrypt_init(context.get());
  EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING);
  EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256());
  EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), EVP_sha1());
  EVP_PKEY_CTX_set0_rsa_oaep_label(context.get(), OPENSSL_memdup("label", 5), 5);
  std::size_t size = 256;
  EVP_PKEY_encrypt(context.get(), data, &size, reinterpret_cast<const CK_BYTE*>("text"), 4);
  caller.decryptInit(oaep(CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, "label", 5));
  EXPECT_EQ(caller.decrypt(256), CKR_OK);
  EXPECT_EQ(std::string(out, out + length), "text");
  caller.decryptInit(oaep(CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, "other", 5));
  EXPECT_EQ(caller.decrypt(256), CKR_ENCRYPTED_DATA_INVALID);
}

TEST(Token, TellsWhatItIs) {
  Caller caller;
  const auto bytes = [](CK_ULONG number) {
    return std::string(reinterpret_cast<char*>(&number), 8);
  };
  const struct {
    CK_OBJECT_CLASS object;
    CK_ATTRIBUTE_TYPE type;
    std::string value;
  } attributes[] = {
      {CKO_PRIVATE_KEY, CKA_KEY_TYPE, bytes(CKK_RSA)},
      {CKO_PRIVATE_KEY, CKA_SIGN, {1}},
      {CKO_PRIVATE_KEY, CKA_EXTRACTABLE, std::string(1, '\0')},
      {CKO_PRIVATE_KEY, CKA_PUBLIC_EXPONENT, {1, 0, 1}},
      {CKO_PRIVATE_KEY, CKA_PRIVATE_EXPONENT, "none"},
      {CKO_PRIVATE_KEY, CKA_MODULUS, caller.value(CKO_PUBLIC_KEY, CKA_MODULUS)},
      {CKO_PRIVATE_KEY, CKA_PUBLIC_KEY_INFO, caller.value(CKO_CERTIFICATE, CKA_PUBLIC_KEY_INFO)},
      {CKO_PRIVATE_KEY, CKA_SUBJECT, caller.value(CKO_CERTIFICATE, CKA_SUBJECT)},
      {CKO_PUBLIC_KEY, CKA_MODULUS_BITS, bytes(2048)},
      {CKO_CERTIFICATE, CKA_CERTIFICATE_TYPE, bytes(CKC_X_509)},
      {CKO_CERTIFICATE, CKA_MODULUS, "none"},
  };
  for (const auto& one : attributes) EXPECT_EQ(caller.value(one.object, one.type), one.value);
  EXPECT_EQ(caller.value(CKO_CERTIFICATE, CKA_ISSUER)[0], 0x30);

  CK_ATTRIBUTE secret{CKA_PRIME_1, out, sizeof out};
  const CK_OBJECT_HANDLE key = caller.find(CKO_PRIVATE_KEY);
  EXPECT_EQ(caller.m.C_GetAttributeValue(caller.session, key, &secret, 1), CKR_ATTRIBUTE_SENSITIVE);
  CK_SESSION_INFO told;
  caller.m.C_GetSessionInfo(caller.session, &told);
  EXPECT_EQ(told.state, CKS_RW_USER_FUNCTIONS);
  EXPECT_EQ(told.flags, CKF_RW_SESSION | CKF_SERIAL_SESSION);

  // A handle to a private object goes with the login.
  CK_MECHANISM mechanism = raw;
  caller.m.C_Logout(caller.session);
  caller.m.C_Login(caller.session, CKU_USER, pin, 8);
  EXPECT_EQ(caller.m.C_SignInit(caller.session, &mechanism, key), CKR_KEY_HANDLE_INVALID);
  EXPECT_EQ(caller.signInit(raw), CKR_OK);
}

// More bytes than an int counts, with little memory behind them.
TEST(Token, DrawsAnyNumberOfRandomBytes) {
  constexpr std::size_t piece = std::size_t{1} << 24, size = (std::size_t{1} << 31) + piece;
  const int file = memfd_create("random", 0);
  ASSERT_EQ(ftruncate(file, piece), 0);
  auto* const room = static_cast<CK_BYTE*>(
      mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  for (std::size_t at = 0; at < size; at += piece)
    (void)mmap(room + at, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0);
  Caller caller;
  EXPECT_EQ(caller.m.C_GenerateRandom(caller.session, room, size), CKR_OK);
  EXPECT_NE(std::string(room, room + 64), std::string(64, '\0'));
  munmap(room, size);
  close(file);
}

// A call that waits is told of the end; a child is a caller of its own; and nothing holds the
// module.
TEST(Token, IsGoneWithItsCallers) {
  {
    Caller caller;
    std::thread waiting([&] {
      EXPECT_EQ(caller.m.C_WaitForSlotEvent(0, &slot, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    });
    usleep(50000);
    caller.m.C_Finalize(nullptr);
    waiting.join();
    caller.m.C_Initialize(nullptr);
    const pid_t child = fork();
    if (child == 0) _exit(static_cast<int>(caller.m.C_Initialize(nullptr)));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(dlopen(TOKEN, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

}  // namespace
