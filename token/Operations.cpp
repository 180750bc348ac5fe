// The entries of the software token for what its objects are and do, in the order of the standard's
// function list.
#include <openssl/rand.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "token/Call.h"
#include "token/Rsa.h"

namespace {

constexpr CK_ULONG maxPart = 512;  // bytes of a part that CKM_RSA_PKCS takes

CK_OBJECT_HANDLE firstHandle(const Slot& slot) {
  return slot.settings.number("handles", 10);
}

std::string attributeOf(const Object& object, CK_ATTRIBUTE_TYPE type, bool& known) {
  const CK_BBOOL yes = CK_TRUE;
  const CK_BBOOL isPrivate = object.type == CKO_PRIVATE_KEY;
  known = true;
  switch (type) {
    case CKA_CLASS:
      return {reinterpret_cast<const char*>(&object.type), sizeof object.type};
    case CKA_TOKEN:
      return {reinterpret_cast<const char*>(&yes), 1};
    case CKA_PRIVATE:
      return {reinterpret_cast<const char*>(&isPrivate), 1};
    case CKA_ID:
      return object.id;
    case CKA_LABEL:
      return object.label;
    case CKA_VALUE:
      known = object.type == CKO_CERTIFICATE;
      return object.value;
    default:
      known = false;
      return {};
  }
}

bool matches(const Object& object, const CK_ATTRIBUTE& wanted) {
  bool known = false;
  const std::string_view asked(static_cast<const char*>(wanted.pValue), wanted.ulValueLen);
  return attributeOf(object, wanted.type, known) == asked && known;
}

const Object* findObject(const Session& session, CK_OBJECT_HANDLE handle) {
  const CK_ULONG index = handle - firstHandle(*session.slot);
  if (index >= session.slot->objects.size()) return nullptr;
  const Object& object = session.slot->objects[index];
  return object.type == CKO_PRIVATE_KEY && !session.slot->loggedIn ? nullptr : &object;
}

CK_RV getAttribute(const Object& object, CK_ATTRIBUTE& attribute) {
  bool known = false;
  const std::string value = attributeOf(object, attribute.type, known);
  const CK_ULONG room = std::exchange(attribute.ulValueLen, known ? value.size() : ~CK_ULONG{0});
  if (!known) return CKR_ATTRIBUTE_TYPE_INVALID;
  if (attribute.pValue == nullptr) return CKR_OK;
  if (room < value.size()) {
    attribute.ulValueLen = ~CK_ULONG{0};
    return CKR_BUFFER_TOO_SMALL;
  }
  std::memcpy(attribute.pValue, value.data(), value.size());
  return CKR_OK;
}

CK_RV begin(Session& session, Session::Operation& operation, const CK_MECHANISM* mechanism,
            CK_OBJECT_HANDLE key) {
  if (mechanism == nullptr) return CKR_ARGUMENTS_BAD;
  if (operation.active) return CKR_OPERATION_ACTIVE;
  const Object* object = findObject(session, key);
  if (object == nullptr || object->type != CKO_PRIVATE_KEY) return CKR_KEY_HANDLE_INVALID;
  const CK_RV result = checkMechanism(*mechanism);
  if (result == CKR_OK) operation = {true, mechanism->mechanism, object, {}};
  return result;
}

// A key that wants a context-specific login has it once per operation; without it the operation is
// over.
bool refusesContext(Session& session, const Object& key) {
  if (!key.key.wantsContext) return false;
  return !std::exchange(session.slot->contextLoggedIn, false) || key.key.refusesAlways;
}

bool refuses(const Session& session, const char* what) {
  return session.slot->settings.text("refuse", "").find(what) != std::string::npos;
}

bool leavesSaltLengthOpen(const CK_MECHANISM* mechanism) {
  return mechanism != nullptr && mechanism->ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS) &&
         static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter)->sLen == ~CK_ULONG{0};
}

// The caller's own record of the mechanism, which a careless module writes to.
CK_ULONG* typeOf(CK_MECHANISM* mechanism) {
  return mechanism == nullptr ? nullptr : &mechanism->mechanism;
}

// The last step of an operation: the length alone, a buffer too small for it, or the result.
CK_RV finish(Session& session, Session::Operation& operation, CK_BYTE* out, CK_ULONG* length,
             std::string (*compute)(const Session&, CK_RV&)) {
  if (!operation.active) return CKR_OPERATION_NOT_INITIALIZED;
  if (length == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = std::exchange(*length, keySize(operation.key->key));
  if (out == nullptr) return CKR_OK;
  if (room < *length) return CKR_BUFFER_TOO_SMALL;
  CK_RV result = CKR_USER_NOT_LOGGED_IN;
  if (!refusesContext(session, *operation.key)) {
    const std::string bytes = compute(session, result);
    if (result == CKR_OK)
      result = deliver(bytes.data(), bytes.size(), reinterpret_cast<char*>(out), length);
  }
  operation.active = false;
  return result;
}

CK_RV append(Session::Operation& operation, const CK_BYTE* part, CK_ULONG length) {
  if (!operation.active) return CKR_OPERATION_NOT_INITIALIZED;
  if (length > maxPart) return CKR_BUFFER_TOO_SMALL;
  operation.data.append(reinterpret_cast<const char*>(part), length);
  return CKR_OK;
}

// C_Decrypt and C_DecryptUpdate: all the data comes at once, and an update goes on to the final
// call.
CK_RV decrypt(const char* name, CK_SESSION_HANDLE handle, CK_BYTE* data, CK_ULONG length,
              CK_BYTE* out, CK_ULONG* outLength) {
  Call call(name, {handle, {data, length}, at(out), outLength}, {outLength});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  const bool update = std::string_view(name) == "C_DecryptUpdate" && out != nullptr;
  s->decrypt.data.assign(data, data + length);
  if (update && s->slot->settings.has("hold")) return CKR_OK;
  const CK_RV result = finish(*s, s->decrypt, out, outLength, plaintext);
  if (update && result == CKR_OK) s->decrypt.active = true;
  return result;
}

}  // namespace

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE key, CK_ATTRIBUTE* attributes,
                          CK_ULONG count) {
  std::vector<CK_ULONG*> lengths;
  for (CK_ULONG i = 0; attributes != nullptr && i < count; ++i) {
    lengths.push_back(&attributes[i].ulValueLen);
  }
  Call call("C_GetAttributeValue", {handle, key, {attributes, count, false}}, lengths);
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  const Object* object = findObject(*session, key);
  if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
  if (attributes == nullptr) return CKR_ARGUMENTS_BAD;
  CK_RV result = CKR_OK;
  for (CK_ULONG i = 0; i < count; ++i) {
    const CK_RV one = getAttribute(*object, attributes[i]);
    if (one != CKR_OK) result = one;
  }
  return result;
}

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE handle, CK_ATTRIBUTE* wanted, CK_ULONG count) {
  Call call("C_FindObjectsInit", {handle, {wanted, count, true}});
  Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (wanted == nullptr && count > 0) return CKR_ARGUMENTS_BAD;
  if (std::exchange(session->searching, true)) return CKR_OPERATION_ACTIVE;
  session->found.clear();
  for (CK_ULONG i = 0; i < session->slot->objects.size(); ++i) {
    const Object* object = findObject(*session, firstHandle(*session->slot) + i);
    const auto fits = [&](const CK_ATTRIBUTE& attribute) { return matches(*object, attribute); };
    if (object != nullptr && std::all_of(wanted, wanted + count, fits)) {
      session->found.push_back(firstHandle(*session->slot) + i);
    }
  }
  return CKR_OK;
}

CK_RV C_FindObjects(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE* handles, CK_ULONG room,
                    CK_ULONG* count) {
  Call call("C_FindObjects", {handle, room}, {count});
  Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (!session->searching) return CKR_OPERATION_NOT_INITIALIZED;
  auto& found = session->found;
  const auto end = found.begin() + static_cast<long>(std::min<CK_ULONG>(room, found.size()));
  *count = static_cast<CK_ULONG>(std::copy(found.begin(), end, handles) - handles);
  found.erase(found.begin(), end);
  return CKR_OK;
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE handle) {
  Call call("C_FindObjectsFinal", {handle});
  Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  return std::exchange(session->searching, false) ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV C_DecryptInit(CK_SESSION_HANDLE handle, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  Call call("C_DecryptInit", {handle, mechanism, key}, {typeOf(mechanism)});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : begin(*s, s->decrypt, mechanism, key);
}

CK_RV C_Decrypt(CK_SESSION_HANDLE handle, CK_BYTE* data, CK_ULONG length, CK_BYTE* out,
                CK_ULONG* outLength) {
  return decrypt("C_Decrypt", handle, data, length, out, outLength);
}

CK_RV C_DecryptUpdate(CK_SESSION_HANDLE handle, CK_BYTE* part, CK_ULONG length, CK_BYTE* out,
                      CK_ULONG* outLength) {
  return decrypt("C_DecryptUpdate", handle, part, length, out, outLength);
}

CK_RV C_DecryptFinal(CK_SESSION_HANDLE handle, CK_BYTE* out, CK_ULONG* outLength) {
  Call call("C_DecryptFinal", {handle, at(out), outLength}, {outLength});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (s->slot->settings.has("hold")) return finish(*s, s->decrypt, out, outLength, plaintext);
  *outLength = 0;
  return std::exchange(s->decrypt.active, false) ? CKR_OK : CKR_OPERATION_NOT_INITIALIZED;
}

CK_RV C_SignInit(CK_SESSION_HANDLE handle, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  Call call("C_SignInit", {handle, mechanism, key}, {typeOf(mechanism)});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (refuses(*s, "salt-length") && leavesSaltLengthOpen(mechanism)) {
    return CKR_MECHANISM_PARAM_INVALID;
  }
  return begin(*s, s->sign, mechanism, key);
}

CK_RV C_Sign(CK_SESSION_HANDLE handle, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature,
             CK_ULONG* signatureLength) {
  Call call("C_Sign", {handle, {data, length}, at(signature), signatureLength}, {signatureLength});
  Session* s = call.session(handle);
  if (s == nullptr) return call.result;
  if (data == nullptr && refuses(*s, "length-query")) {
    s->sign.active = false;
    return CKR_ARGUMENTS_BAD;
  }
  s->sign.data.assign(data, data + length);
  return finish(*s, s->sign, signature, signatureLength, signatureOf);
}

CK_RV C_SignUpdate(CK_SESSION_HANDLE handle, CK_BYTE* part, CK_ULONG length) {
  Call call("C_SignUpdate", {handle, {part, length}});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : append(s->sign, part, length);
}

CK_RV C_SignFinal(CK_SESSION_HANDLE handle, CK_BYTE* signature, CK_ULONG* length) {
  Call call("C_SignFinal", {handle, at(signature), length}, {length});
  Session* s = call.session(handle);
  return s == nullptr ? call.result : finish(*s, s->sign, signature, length, signatureOf);
}

CK_RV C_SeedRandom(CK_SESSION_HANDLE handle, CK_BYTE*, CK_ULONG length) {
  Call call("C_SeedRandom", {handle, length});
  call.session(handle);
  return call.result;
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE handle, CK_BYTE* bytes, CK_ULONG length) {
  Call call("C_GenerateRandom", {handle, length});
  if (call.session(handle) != nullptr) RAND_bytes(bytes, static_cast<int>(length));
  return call.result;
}
