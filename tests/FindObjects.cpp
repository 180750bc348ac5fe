// findObjectsTest: searches every token for certificates, reads their values and labels, and
// searches for private keys once per certificate. The operator sees the labels.
#include <array>
#include <string_view>

#include "harness/Objects.h"
#include "harness/Report.h"
#include "tests/UserSession.h"

namespace kestrel {

namespace {

constexpr std::size_t maxObjects = 16;  // of one search; more are not looked at
constexpr std::size_t maxValueLength = 10000;
constexpr std::size_t labelLength = 200;

// Reads an attribute into a buffer of fixed size, zero behind the value.
template <std::size_t size>
std::array<char, size> readAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                     CK_ATTRIBUTE_TYPE type) {
  std::array<char, size> buffer{};
  CK_ATTRIBUTE attribute{type, buffer.data(), buffer.size()};
  requireAttributes(session, object, {&attribute, 1}, 0, buffer.size());
  return buffer;
}

// The searches on one token, with the storage that they share.
struct ObjectSearch {
  CK_SESSION_HANDLE session;
  std::array<CK_OBJECT_HANDLE, maxObjects> handles{};
  CK_ULONG certificateCount = 0;
  CK_BBOOL isToken = CK_TRUE;
  CK_BBOOL isPrivate = CK_TRUE;
  CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
  CK_OBJECT_CLASS privateKeyClass = CKO_PRIVATE_KEY;
  // What the module finds there at the first key search is in its traces of all releases.
  CK_ULONG keyCount = CKO_CERTIFICATE;
  std::array<std::array<CK_BYTE, 8>, maxObjects> ids{};  // never filled: keys are sought by zeros

  void findCertificates() {
    std::array<CK_ATTRIBUTE, 2> attributes{{
        {CKA_TOKEN, &isToken, sizeof isToken},
        {CKA_CLASS, &certificateClass, sizeof certificateClass},
    }};
    findObjects(session, attributes, handles, certificateCount);
  }

  // The label is printed at the buffer's full width, zero bytes included.
  void showCertificate(std::size_t index) {
    readAttribute<maxValueLength>(session, handles[index], CKA_VALUE);
    const auto label = readAttribute<labelLength>(session, handles[index], CKA_LABEL);
    report << std::dec << "\nCertificate " << index + 1
           << " label: " << std::string_view(label.data(), label.size()) << "\n\n";
  }

  void findPrivateKeys(std::size_t index) {
    std::array<CK_ATTRIBUTE, 4> attributes{{
        {CKA_TOKEN, &isToken, sizeof isToken},
        {CKA_PRIVATE, &isPrivate, sizeof isPrivate},
        {CKA_CLASS, &privateKeyClass, sizeof privateKeyClass},
        {CKA_ID, ids[index].data(), ids[index].size()},
    }};
    findObjects(session, attributes, handles, keyCount);
  }
};

}  // namespace

CK_RV TestManager::findObjectsTest() {
  report << "Test10 - C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal, "
            "C_GetAttributeValue...\n";
  populateSlotList();
  for (const TokenSlot token : PresentTokens(slots())) {
    asUser(*this, token, [&](CK_SESSION_HANDLE session) {
      CK_TOKEN_INFO info{};
      require(p11::C_GetTokenInfo, token.id, &info);
      ObjectSearch search{session};
      search.findCertificates();
      for (std::size_t i = 0; i < search.certificateCount; ++i) search.showCertificate(i);
      for (std::size_t i = 0; i < search.certificateCount; ++i) search.findPrivateKeys(i);
      return CKR_OK;
    });
  }
  return CKR_OK;
}

}  // namespace kestrel
