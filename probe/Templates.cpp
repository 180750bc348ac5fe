#include "probe/Templates.h"

#include <algorithm>
#include <cstring>

namespace kestrel::probe {

std::optional<Bytes> readAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   CK_ATTRIBUTE_TYPE type) {
  constexpr CK_ULONG room = 16384;
  Memory& memory = Caller::current().memory;
  const MemoryScope scope(memory);
  CK_BYTE* const value = memory.bytes(room);
  auto* const attribute = memory.out(CK_ATTRIBUTE{type, value, room});
  if (p11::C_GetAttributeValue(session, object, attribute, 1) != CKR_OK ||
      attribute->ulValueLen > room) {
    return std::nullopt;
  }
  return Bytes(reinterpret_cast<const char*>(value), attribute->ulValueLen);
}

std::optional<CK_ULONG> readNumber(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   CK_ATTRIBUTE_TYPE type) {
  const std::optional<Bytes> value = readAttribute(session, object, type);
  if (!value || value->empty() || value->size() > sizeof(CK_ULONG)) return std::nullopt;
  CK_ULONG number = 0;
  std::memcpy(&number, value->data(), value->size());
  return number;
}

std::vector<CK_OBJECT_HANDLE> findObjects(CK_SESSION_HANDLE session, const Template& wanted,
                                          std::size_t most) {
  constexpr CK_ULONG batch = 64;
  Memory& memory = Caller::current().memory;
  const MemoryScope scope(memory);
  std::vector<CK_OBJECT_HANDLE> found;
  if (p11::C_FindObjectsInit(session, wanted.in(), wanted.count()) != CKR_OK) return found;
  auto* const handles = memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE, batch);
  auto* const count = memory.out<CK_ULONG>(0);
  while (found.size() < most) {
    const CK_ULONG room = std::min<CK_ULONG>(batch, most - found.size());
    if (p11::C_FindObjects(session, handles, room, count) != CKR_OK || *count == 0) break;
    found.insert(found.end(), handles, handles + *count);
  }
  p11::C_FindObjectsFinal(session);
  return found;
}

}  // namespace kestrel::probe
