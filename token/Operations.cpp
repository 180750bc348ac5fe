// The entries of the software token for what its keys do.
//
// Every operation ends with the first call that fails or gives the last of its result, but not when
// the caller asks for a length or has too little room. RSA without a hash of the token's own is not
// for parts; the token takes parts all the same.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <string_view>
#include <utility>

#include "token/Call.h"
#include "token/Rsa.h"
#include "token/TokenMechanisms.h"
#include "token/TokenObjects.h"

namespace kestrel::token {

namespace {

using Operation = Session::Operation;

constexpr CK_ULONG maxPart = 512;  // bytes of a part that the token does not hash

CK_RV end(Operation& operation, CK_RV result) {
  operation = {};
  return result;
}

bool isNull(const CK_BYTE* bytes, CK_ULONG length) {
  return bytes == nullptr && length > 0;
}

CK_RV checkKey(const Object* key) {
  if (key == nullptr || key->type == CKO_CERTIFICATE) return CKR_KEY_HANDLE_INVALID;
  return key->type == CKO_PRIVATE_KEY ? CKR_OK : CKR_KEY_TYPE_INCONSISTENT;
}

CK_RV begin(Session& session, Operation& operation, CK_FLAGS use, const CK_MECHANISM* mechanism,
            CK_OBJECT_HANDLE handle) {
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  if (operation.key != nullptr) return CKR_OPERATION_ACTIVE;
  const Object* const key = findObject(session, handle);
  const CK_RV keyResult = checkKey(key);
  if (keyResult != CKR_OK) return keyResult;
  if (!hasMechanism(*session.slot, mechanism->mechanism)) return CKR_MECHANISM_INVALID;
  Operation begun;
  const CK_RV result = readMechanism(*mechanism, use, keySize(key->key), begun.scheme);
  if (result != CKR_OK) return result;
  if (session.slot->settings.has("pad") && begun.scheme.padding == RSA_NO_PADDING) {
    begun.scheme.padding = RSA_PKCS1_PADDING;
  }
  if (begun.scheme.hashes) {
    begun.hash.reset(EVP_MD_CTX_new());
    EVP_DigestInit_ex(begun.hash.get(), begun.scheme.digest, nullptr);
  }
  begun.key = key;
  operation = std::move(begun);
  session.contextRefused = false;
  return CKR_OK;
}

// A key that wants a context-specific login has it once per operation.
bool refusesContext(Session& session, const Key& key) {
  if (!key.wantsContext) return false;
  session.contextRefused = !std::exchange(session.contextLoggedIn, false) || key.refusesAlways;
  return session.contextRefused;
}

bool refuses(const Session& session, const char* what) {
  return session.slot->settings.text("refuse", "").find(what) != std::string::npos;
}

// The caller's own record of the mechanism, which a careless module writes to.
CK_ULONG* typeOf(CK_MECHANISM* mechanism) {
  return mechanism == nullptr ? nullptr : &mechanism->mechanism;
}

// Has a result computed for a caller with room for it. One who only asks for the length gets
// CKR_OK without.
template <typename Compute>
CK_RV give(Session& session, Operation& operation, CK_BYTE* out, CK_ULONG* length,
           Compute compute) {
  if (length == nullptr) return end(operation, CKR_ARGUMENTS_BAD);
  const CK_ULONG room = std::exchange(*length, keySize(operation.key->key));
  if (out == nullptr) return CKR_OK;
  if (room < *length) return CKR_BUFFER_TOO_SMALL;
  if (refusesContext(session, operation.key->key)) return end(operation, CKR_USER_NOT_LOGGED_IN);
  std::string bytes;
  const CK_RV result = compute(bytes);
  if (result != CKR_OK) return end(operation, result);
  return deliver(bytes.data(), bytes.size(), reinterpret_cast<char*>(out), length);
}

// Likewise, and it is the last.
template <typename Compute>
CK_RV finish(Session& session, Operation& operation, CK_BYTE* out, CK_ULONG* length,
             Compute compute) {
  const CK_RV result = give(session, operation, out, length, compute);
  return result == CKR_OK && out != nullptr ? end(operation, CKR_OK) : result;
}

CK_RV feed(Operation& operation, const CK_BYTE* part, CK_ULONG length) {
  if (isNull(part, length)) return CKR_ARGUMENTS_BAD;
  if (operation.hash != nullptr) {
    EVP_DigestUpdate(operation.hash.get(), part, length);
    return CKR_OK;
  }
  if (length > maxPart) return CKR_BUFFER_TOO_SMALL;
  if (operation.data.size() + length > keySize(operation.key->key)) return CKR_DATA_LEN_RANGE;
  operation.data.append(reinterpret_cast<const char*>(part), length);
  return CKR_OK;
}

std::string_view view(const CK_BYTE* bytes, CK_ULONG length) {
  return {reinterpret_cast<const char*>(bytes), length};
}

// Of all that was fed.
CK_RV sign(const Session& session, Operation& operation, std::string_view data,
           std::string& signature) {
  CK_BYTE digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (operation.hash != nullptr) {
    EVP_DigestFinal_ex(operation.hash.get(), digest, &length);
    data = view(digest, length);
  }
  const CK_RV result = signatureOf(operation.key->key, operation.scheme, data, signature);
  if (result == CKR_OK && session.slot->settings.has("spoil")) signature.back() ^= 1;
  return result;
}

// The plaintext comes with the part that makes the ciphertext whole.
CK_RV decryptPart(Session& session, Operation& operation, const CK_BYTE* part, CK_ULONG length,
                  CK_BYTE* out, CK_ULONG* outLength) {
  if (operation.key == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  if (outLength == nullptr || isNull(part, length)) return end(operation, CKR_ARGUMENTS_BAD);
  const CK_ULONG missing = operation.done ? 0 : keySize(operation.key->key) - operation.data.size();
  if (length > missing) return end(operation, CKR_ENCRYPTED_DATA_LEN_RANGE);
  const std::string data = operation.data + std::string(view(part, length));
  const bool hold = out != nullptr && session.slot->settings.has("hold");
  if (operation.done || length < missing || hold) {
    if (!hold) *outLength = 0;
    if (out == nullptr) return CKR_OK;
    operation.data = data;
    operation.inParts = true;
    return CKR_OK;
  }
  const CK_RV result = give(session, operation, out, outLength, [&](std::string& text) {
    return plaintextOf(operation.key->key, operation.scheme, data, text);
  });
  if (result == CKR_OK && out != nullptr) operation.inParts = operation.done = true;
  return result;
}

// With "hold" the plaintext, otherwise nothing more.
CK_RV decryptFinal(Session& session, Operation& operation, CK_BYTE* out, CK_ULONG* outLength) {
  if (operation.key == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  if (session.slot->settings.has("hold") || outLength == nullptr) {
    return finish(session, operation, out, outLength, [&](std::string& text) {
      return plaintextOf(operation.key->key, operation.scheme, operation.data, text);
    });
  }
  *outLength = 0;
  if (out == nullptr) return CKR_OK;
  return end(operation, operation.done ? CKR_OK : CKR_ENCRYPTED_DATA_LEN_RANGE);
}

}  // namespace

}  // namespace kestrel::token

using namespace kestrel::token;

CK_RV C_DecryptInit(CK_SESSION_HANDLE handle, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  Call call("C_DecryptInit", {handle, mechanism, key}, {typeOf(mechanism)});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : begin(*s, s->decrypt, CKF_DECRYPT, mechanism, key);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE handle, CK_BYTE* data, CK_ULONG length, CK_BYTE* out,
                CK_ULONG* outLength) {
  Call call("C_Decrypt", {handle, {data, length}, at(out), outLength}, {outLength});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  Operation& operation = s->decrypt;
  if (operation.key == nullptr || operation.inParts) return CKR_OPERATION_NOT_INITIALIZED;
  if (isNull(data, length)) return end(operation, CKR_ARGUMENTS_BAD);
  return finish(*s, operation, out, outLength, [&](std::string& text) {
    return plaintextOf(operation.key->key, operation.scheme, view(data, length), text);
  });
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE handle, CK_BYTE* part, CK_ULONG length, CK_BYTE* out,
                      CK_ULONG* outLength) {
  Call call("C_DecryptUpdate", {handle, {part, length}, at(out), outLength}, {outLength});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : decryptPart(*s, s->decrypt, part, length, out, outLength);
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE handle, CK_BYTE* out, CK_ULONG* outLength) {
  Call call("C_DecryptFinal", {handle, at(out), outLength}, {outLength});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : decryptFinal(*s, s->decrypt, out, outLength);
}

CK_RV C_SignInit(CK_SESSION_HANDLE handle, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  Call call("C_SignInit", {handle, mechanism, key}, {typeOf(mechanism)});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (refuses(*s, "salt-length") && leavesSaltLengthOpen(mechanism)) {
    return CKR_MECHANISM_PARAM_INVALID;
  }
  return begin(*s, s->sign, CKF_SIGN, mechanism, key);
}

CK_RV C_Sign(CK_SESSION_HANDLE handle, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature,
             CK_ULONG* signatureLength) {
  Call call("C_Sign", {handle, {data, length}, at(signature), signatureLength}, {signatureLength});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  Operation& operation = s->sign;
  if (operation.key == nullptr || operation.inParts) return CKR_OPERATION_NOT_INITIALIZED;
  if (isNull(data, length) || (data == nullptr && refuses(*s, "length-query"))) {
    return end(operation, CKR_ARGUMENTS_BAD);
  }
  return finish(*s, operation, signature, signatureLength, [&](std::string& bytes) {
    if (operation.hash != nullptr) EVP_DigestUpdate(operation.hash.get(), data, length);
    return sign(*s, operation, view(data, length), bytes);
  });
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE handle, CK_BYTE* part, CK_ULONG length) {
  Call call("C_SignUpdate", {handle, {part, length}});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (s->sign.key == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  s->sign.inParts = true;
  const CK_RV result = feed(s->sign, part, length);
  return result == CKR_OK ? CKR_OK : end(s->sign, result);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE handle, CK_BYTE* signature, CK_ULONG* length) {
  Call call("C_SignFinal", {handle, at(signature), length}, {length});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (s->sign.key == nullptr) return CKR_OPERATION_NOT_INITIALIZED;
  return finish(*s, s->sign, signature, length,
                [&](std::string& bytes) { return sign(*s, s->sign, s->sign.data, bytes); });
}
