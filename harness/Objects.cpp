#include "harness/Objects.h"

#include <algorithm>
#include <array>

#include "harness/Report.h"

namespace kestrel {

void findObjects(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes,
                 std::span<CK_OBJECT_HANDLE> handles, CK_ULONG& count, const SearchNames& names) {
  requireResult(names.init, p11::C_FindObjectsInit(session, attributes.data(), attributes.size()));
  const CK_RV result = p11::C_FindObjects(session, handles.data(), handles.size(), &count);
  requireResult(names.find, ifSane(result, count <= handles.size()));
  requireResult(names.end, p11::C_FindObjectsFinal(session));
}

void requireAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                       std::span<CK_ATTRIBUTE> attributes, std::size_t checked, CK_ULONG limit) {
  const CK_RV result =
      p11::C_GetAttributeValue(session, object, attributes.data(), attributes.size());
  requireResult("C_GetAttributeValue", ifSane(result, attributes[checked].ulValueLen <= limit));
}

std::vector<CK_BYTE> fetchAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                    std::span<CK_ATTRIBUTE> attributes, std::size_t wanted,
                                    CK_ULONG limit) {
  CK_ATTRIBUTE& value = attributes[wanted];
  requireAttributes(session, object, attributes, wanted, limit);
  const CK_ULONG room = value.ulValueLen;
  // An empty value still gets a pointer: a null one would make the fetch a second length query.
  std::vector<CK_BYTE> bytes(std::max<CK_ULONG>(room, 1));
  value.pValue = bytes.data();
  requireAttributes(session, object, attributes, wanted, room);
  bytes.resize(value.ulValueLen);
  return bytes;
}

std::vector<CK_BYTE> readCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE certificate,
                                     CK_ULONG limit) {
  std::array<CK_ATTRIBUTE, 3> attributes{{
      {CKA_ID, nullptr, 0},
      {CKA_VALUE, nullptr, 0},
      {CKA_LABEL, nullptr, 0},
  }};
  return fetchAttribute(session, certificate, attributes, 1, limit);
}

}  // namespace kestrel
