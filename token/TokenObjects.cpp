#include "token/TokenObjects.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "token/Attributes.h"
#include "token/Call.h"

namespace kestrel::token {

namespace {

CK_OBJECT_HANDLE firstHandle(const Slot& slot) {
  return slot.settings.number("handles", 10);
}

CK_OBJECT_HANDLE handleOf(const Slot& slot, CK_ULONG index) {
  const bool isPrivate = slot.objects[index].type == CKO_PRIVATE_KEY;
  return firstHandle(slot) + (isPrivate ? slot.logouts : 0) * slot.objects.size() + index;
}

bool isNull(const CK_ATTRIBUTE& attribute) {
  return attribute.pValue == nullptr && attribute.ulValueLen > 0;
}

bool matches(const Object& object, const CK_ATTRIBUTE& wanted) {
  std::string value;
  const std::string_view asked(static_cast<const char*>(wanted.pValue), wanted.ulValueLen);
  return attributeOf(object, wanted.type, value) == CKR_OK && value == asked;
}

CK_RV getAttribute(const Object& object, CK_ATTRIBUTE& attribute) {
  std::string value;
  const CK_RV result = attributeOf(object, attribute.type, value);
  const CK_ULONG room = std::exchange(attribute.ulValueLen, CK_UNAVAILABLE_INFORMATION);
  if (result != CKR_OK) return result;
  if (attribute.pValue != nullptr && room < value.size()) return CKR_BUFFER_TOO_SMALL;
  attribute.ulValueLen = value.size();
  if (attribute.pValue != nullptr) std::memcpy(attribute.pValue, value.data(), value.size());
  return CKR_OK;
}

}  // namespace

const Object* findObject(const Session& session, CK_OBJECT_HANDLE handle) {
  const Slot& slot = *session.slot;
  if (slot.objects.empty() || handle < firstHandle(slot)) return nullptr;
  const CK_ULONG index = (handle - firstHandle(slot)) % slot.objects.size();
  const Object& object = slot.objects[index];
  if (handleOf(slot, index) != handle) return nullptr;
  return object.type == CKO_PRIVATE_KEY && !slot.loggedIn ? nullptr : &object;
}

}  // namespace kestrel::token

using namespace kestrel::token;

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
  if (attributes == nullptr && count > 0) return CKR_ARGUMENTS_BAD;
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
  if (std::any_of(wanted, wanted + count, isNull)) return CKR_ARGUMENTS_BAD;
  if (std::exchange(session->searching, true)) return CKR_OPERATION_ACTIVE;
  session->found.clear();
  for (CK_ULONG i = 0; i < session->slot->objects.size(); ++i) {
    const CK_OBJECT_HANDLE candidate = handleOf(*session->slot, i);
    const Object* object = findObject(*session, candidate);
    const auto fits = [&](const CK_ATTRIBUTE& attribute) { return matches(*object, attribute); };
    if (object != nullptr && std::all_of(wanted, wanted + count, fits)) {
      session->found.push_back(candidate);
    }
  }
  return CKR_OK;
}

// What was found is not given out to those who may not see it any more.
CK_RV C_FindObjects(CK_SESSION_HANDLE handle, CK_OBJECT_HANDLE* handles, CK_ULONG room,
                    CK_ULONG* count) {
  Call call("C_FindObjects", {handle, room}, {count});
  Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (!session->searching) return CKR_OPERATION_NOT_INITIALIZED;
  if (count == nullptr || (handles == nullptr && room > 0)) return CKR_ARGUMENTS_BAD;
  auto& found = session->found;
  std::erase_if(found, [&](auto object) { return findObject(*session, object) == nullptr; });
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
