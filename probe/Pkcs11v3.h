// What PKCS #11 3.0 and later have beyond the header of 2.40: values, and the layout of interfaces.
#pragma once

#include "harness/Pkcs11.h"

// A header of a later version has these itself. Every line is read by the build too, for the names.
// clang-format off
#ifndef CKR_TOKEN_RESOURCE_EXCEEDED
#define CKR_AEAD_DECRYPT_FAILED 0x35UL
#define CKR_TOKEN_RESOURCE_EXCEEDED 0x201UL
#define CKR_OPERATION_CANCEL_FAILED 0x202UL
#define CKR_KEY_EXHAUSTED 0x203UL
#define CKR_PENDING 0x204UL
#define CKR_SESSION_ASYNC_NOT_SUPPORTED 0x205UL
#define CKR_SEED_RANDOM_REQUIRED 0x206UL
#define CKR_OPERATION_NOT_VALIDATED 0x207UL
#define CKR_TOKEN_NOT_INITIALIZED 0x208UL
#define CKR_PARAMETER_SET_NOT_SUPPORTED 0x209UL

#define CKA_UNIQUE_ID 0x4UL

#define CKK_CHACHA20 0x33UL
#define CKK_POLY1305 0x34UL
#define CKK_AES_XTS 0x35UL
#define CKK_SHA3_224_HMAC 0x36UL
#define CKK_SHA3_256_HMAC 0x37UL
#define CKK_SHA3_384_HMAC 0x38UL
#define CKK_SHA3_512_HMAC 0x39UL
#define CKK_BLAKE2B_512_HMAC 0x3dUL
#define CKK_EC_MONTGOMERY 0x41UL
#define CKK_HKDF 0x42UL
#define CKK_SHA512_224_HMAC 0x43UL
#define CKK_SHA512_256_HMAC 0x44UL

#define CKM_DSA_SHA3_224 0x18UL
#define CKM_DSA_SHA3_256 0x19UL
#define CKM_DSA_SHA3_384 0x1aUL
#define CKM_DSA_SHA3_512 0x1bUL

#define CKM_SHA3_256_RSA_PKCS 0x60UL
#define CKM_SHA3_384_RSA_PKCS 0x61UL
#define CKM_SHA3_512_RSA_PKCS 0x62UL
#define CKM_SHA3_256_RSA_PKCS_PSS 0x63UL
#define CKM_SHA3_384_RSA_PKCS_PSS 0x64UL
#define CKM_SHA3_512_RSA_PKCS_PSS 0x65UL
#define CKM_SHA3_224_RSA_PKCS 0x66UL
#define CKM_SHA3_224_RSA_PKCS_PSS 0x67UL
#define CKM_SHA3_256 0x2b0UL
#define CKM_SHA3_256_HMAC 0x2b1UL
#define CKM_SHA3_256_HMAC_GENERAL 0x2b2UL
#define CKM_SHA3_256_KEY_GEN 0x2b3UL
#define CKM_SHA3_224 0x2b5UL
#define CKM_SHA3_224_HMAC 0x2b6UL
#define CKM_SHA3_224_HMAC_GENERAL 0x2b7UL
#define CKM_SHA3_224_KEY_GEN 0x2b8UL
#define CKM_SHA3_384 0x2c0UL
#define CKM_SHA3_384_HMAC 0x2c1UL
#define CKM_SHA3_384_HMAC_GENERAL 0x2c2UL
#define CKM_SHA3_384_KEY_GEN 0x2c3UL
#define CKM_SHA3_512 0x2d0UL
#define CKM_SHA3_512_HMAC 0x2d1UL
#define CKM_SHA3_512_HMAC_GENERAL 0x2d2UL
#define CKM_SHA3_512_KEY_GEN 0x2d3UL
#define CKM_SHA3_256_KEY_DERIVATION 0x397UL
#define CKM_SHA3_224_KEY_DERIVATION 0x398UL
#define CKM_SHA3_384_KEY_DERIVATION 0x399UL
#define CKM_SHA3_512_KEY_DERIVATION 0x39aUL
#define CKM_SHAKE_128_KEY_DERIVATION 0x39bUL
#define CKM_SHAKE_256_KEY_DERIVATION 0x39cUL
#define CKM_SP800_108_COUNTER_KDF 0x3acUL
#define CKM_SP800_108_FEEDBACK_KDF 0x3adUL
#define CKM_SP800_108_DOUBLE_PIPELINE_KDF 0x3aeUL
#define CKM_ECDSA_SHA3_224 0x1047UL
#define CKM_ECDSA_SHA3_256 0x1048UL
#define CKM_ECDSA_SHA3_384 0x1049UL
#define CKM_ECDSA_SHA3_512 0x104aUL
#define CKM_EC_MONTGOMERY_KEY_PAIR_GEN 0x1056UL
#define CKM_AES_XTS 0x1071UL
#define CKM_AES_XTS_KEY_GEN 0x1072UL
#define CKM_CHACHA20_KEY_GEN 0x1225UL
#define CKM_CHACHA20 0x1226UL
#define CKM_POLY1305_KEY_GEN 0x1227UL
#define CKM_POLY1305 0x1228UL
#define CKM_AES_KEY_WRAP_KWP 0x210bUL
#define CKM_AES_KEY_WRAP_PKCS7 0x210cUL
#define CKM_SHA_1_KEY_GEN 0x4003UL
#define CKM_SHA224_KEY_GEN 0x4004UL
#define CKM_SHA256_KEY_GEN 0x4005UL
#define CKM_SHA384_KEY_GEN 0x4006UL
#define CKM_SHA512_KEY_GEN 0x4007UL
#define CKM_SHA512_224_KEY_GEN 0x4008UL
#define CKM_SHA512_256_KEY_GEN 0x4009UL
#define CKM_BLAKE2B_512 0x401bUL
#define CKM_BLAKE2B_512_HMAC 0x401cUL
#define CKM_BLAKE2B_512_HMAC_GENERAL 0x401dUL
#define CKM_BLAKE2B_512_KEY_DERIVE 0x401eUL
#define CKM_BLAKE2B_512_KEY_GEN 0x401fUL
#define CKM_SALSA20 0x4020UL
#define CKM_CHACHA20_POLY1305 0x4021UL
#define CKM_SALSA20_POLY1305 0x4022UL
#define CKM_XEDDSA 0x4029UL
#define CKM_HKDF_DERIVE 0x402aUL
#define CKM_HKDF_DATA 0x402bUL
#define CKM_HKDF_KEY_GEN 0x402cUL

#define CKG_MGF1_SHA3_224 0x6UL
#define CKG_MGF1_SHA3_256 0x7UL
#define CKG_MGF1_SHA3_384 0x8UL
#define CKG_MGF1_SHA3_512 0x9UL

#define CKD_SHA3_224_KDF 0xaUL
#define CKD_SHA3_256_KDF 0xbUL
#define CKD_SHA3_384_KDF 0xcUL
#define CKD_SHA3_512_KDF 0xdUL

#define CKF_HKDF_SALT_NULL 0x1UL
#define CKF_HKDF_SALT_DATA 0x2UL
#define CKF_HKDF_SALT_KEY 0x4UL
#endif
// clang-format on

namespace kestrel::probe {

// Parameters of mechanisms, as the standard lays them out.

struct CcmParameters {
  CK_ULONG dataLength;
  CK_BYTE* nonce;
  CK_ULONG nonceLength;
  CK_BYTE* aad;
  CK_ULONG aadLength;
  CK_ULONG macLength;
};

struct ChaCha20Parameters {
  CK_BYTE* blockCounter;
  CK_ULONG blockCounterBits;
  CK_BYTE* nonce;
  CK_ULONG nonceBits;
};

struct ChaCha20Poly1305Parameters {
  CK_BYTE* nonce;
  CK_ULONG nonceLength;
  CK_BYTE* aad;
  CK_ULONG aadLength;
};

struct Rc2CbcParameters {
  CK_ULONG effectiveBits;
  CK_BYTE iv[8];
};

struct EdDsaParameters {
  CK_BBOOL prehashed;
  CK_ULONG contextLength;
  CK_BYTE* context;
};

struct HkdfParameters {
  CK_BBOOL extract;
  CK_BBOOL expand;
  CK_MECHANISM_TYPE hash;
  CK_ULONG saltType;
  CK_BYTE* salt;
  CK_ULONG saltLength;
  CK_OBJECT_HANDLE saltKey;
  CK_BYTE* info;
  CK_ULONG infoLength;
};

// Of SP800-108: what the input of its function is made of, in its order.
struct PrfData {
  enum Type : CK_ULONG { iterationVariable = 1, counter, keyLength, byteArray };
  CK_ULONG type;
  void* value;
  CK_ULONG length;
};

struct CounterFormat {
  CK_BBOOL littleEndian;
  CK_ULONG bits;
};

struct KeyLengthFormat {
  CK_ULONG method;  // 1: the sum of the keys
  CK_BBOOL littleEndian;
  CK_ULONG bits;
};

struct KdfParameters {
  CK_MECHANISM_TYPE prf;
  CK_ULONG dataCount;
  PrfData* data;
  CK_ULONG moreKeys;
  void* moreKeyList;
};

struct FeedbackKdfParameters {
  CK_MECHANISM_TYPE prf;
  CK_ULONG dataCount;
  PrfData* data;
  CK_ULONG ivLength;
  CK_BYTE* iv;
  CK_ULONG moreKeys;
  void* moreKeyList;
};

// One of the interfaces that C_GetInterfaceList tells of: the structure that the standard calls
// CK_INTERFACE.
struct Interface {
  CK_UTF8CHAR* name;
  void* functionList;
  CK_FLAGS flags;
};

// The list of 3.0: the one of 2.40 (whose version tells it), and 24 functions more.
struct FunctionList3 {
  CK_FUNCTION_LIST base;
  CK_RV (*C_GetInterfaceList)(Interface*, CK_ULONG*);
  CK_RV (*C_GetInterface)(CK_UTF8CHAR*, CK_VERSION*, Interface**, CK_FLAGS);
  CK_RV(*C_LoginUser)
  (CK_SESSION_HANDLE, CK_USER_TYPE, CK_UTF8CHAR*, CK_ULONG, CK_UTF8CHAR*, CK_ULONG);
  CK_RV (*C_SessionCancel)(CK_SESSION_HANDLE, CK_FLAGS);
  CK_RV (*C_MessageEncryptInit)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
  CK_RV(*C_EncryptMessage)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*);
  CK_RV (*C_EncryptMessageBegin)(CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG);
  CK_RV(*C_EncryptMessageNext)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*, CK_FLAGS);
  CK_RV (*C_MessageEncryptFinal)(CK_SESSION_HANDLE);
  CK_RV (*C_MessageDecryptInit)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
  CK_RV(*C_DecryptMessage)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*);
  CK_RV (*C_DecryptMessageBegin)(CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG);
  CK_RV(*C_DecryptMessageNext)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*, CK_FLAGS);
  CK_RV (*C_MessageDecryptFinal)(CK_SESSION_HANDLE);
  CK_RV (*C_MessageSignInit)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
  CK_RV(*C_SignMessage)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*);
  CK_RV (*C_SignMessageBegin)(CK_SESSION_HANDLE, void*, CK_ULONG);
  CK_RV(*C_SignMessageNext)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*);
  CK_RV (*C_MessageSignFinal)(CK_SESSION_HANDLE);
  CK_RV (*C_MessageVerifyInit)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
  CK_RV(*C_VerifyMessage)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG);
  CK_RV (*C_VerifyMessageBegin)(CK_SESSION_HANDLE, void*, CK_ULONG);
  CK_RV(*C_VerifyMessageNext)
  (CK_SESSION_HANDLE, void*, CK_ULONG, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG);
  CK_RV (*C_MessageVerifyFinal)(CK_SESSION_HANDLE);
};

}  // namespace kestrel::probe
