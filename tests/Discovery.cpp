// The keys that the signing and decryption tests work with: every private key of a token with the
// public key and the certificate of the same CKA_ID. The operator sees the report lines of the
// searches and of the attribute calls, once per run.
#include <algorithm>
#include <array>

#include "harness/Objects.h"
#include "harness/Report.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

// More keys than any token holds, and more bytes of certificates: who reports them never ends.
constexpr std::size_t maxPrivateKeys = std::size_t{1} << 20;
constexpr CK_ULONG maxCertificateBytes = CK_ULONG{1} << 30;

constexpr SearchNames searchNames{"Find objects init", "Find objects", "Find objects final"};

// The first object that matches `attributes`, 0 when there is none.
CK_OBJECT_HANDLE findFirst(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes,
                           CK_ULONG& count, const SearchNames& names = {}) {
  CK_OBJECT_HANDLE handle = 0;
  findObjects(session, attributes, {&handle, 1}, count, names);
  return count == 0 ? 0 : handle;
}

CK_OBJECT_HANDLE findById(CK_SESSION_HANDLE session, std::vector<CK_BYTE>& id,
                          CK_OBJECT_CLASS objectClass, CK_ULONG& count) {
  std::array<CK_ATTRIBUTE, 2> attributes{{
      {CKA_ID, id.data(), id.size()},
      {CKA_CLASS, &objectClass, sizeof objectClass},
  }};
  return findFirst(session, attributes, count);
}

std::vector<CertKeyRecord> findPrivateKeys(CK_SESSION_HANDLE session, std::uint32_t slotIndex,
                                           CK_ULONG& count) {
  CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE attribute{CKA_CLASS, &objectClass, sizeof objectClass};
  std::vector<CertKeyRecord> records;
  requireResult(searchNames.init, p11::C_FindObjectsInit(session, &attribute, 1));
  for (;;) {
    CK_OBJECT_HANDLE handle = 0;
    const CK_RV result = p11::C_FindObjects(session, &handle, 1, &count);
    const CK_ULONG limit = records.size() < maxPrivateKeys ? 1 : 0;
    requireResult(searchNames.find, ifSane(result, count <= limit));
    if (count == 0) break;
    CertKeyRecord& record = records.emplace_back();
    record.privateKeyHandle = handle;
    record.slotIndex = slotIndex;
  }
  requireResult(searchNames.end, p11::C_FindObjectsFinal(session));
  return records;
}

std::vector<CK_BYTE> readId(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  CK_ATTRIBUTE attribute{CKA_ID, nullptr, 0};
  return fetchAttribute(session, object, {&attribute, 1}, 0, maxAnswerLength);
}

}  // namespace

void TestManager::getAllCertsAndKeys(CK_SESSION_HANDLE session, std::uint32_t slotIndex) {
  report << "Get All Certs and Keys" << std::endl;
  std::vector<CertKeyRecord>& records = certKeyMap[slotIndex];
  records = findPrivateKeys(session, slotIndex, objectCount);
  CK_ULONG room = maxCertificateBytes;
  for (CertKeyRecord& record : records) {
    std::vector<CK_BYTE> id = readId(session, record.privateKeyHandle);
    record.publicKeyHandle = findById(session, id, CKO_PUBLIC_KEY, objectCount);
    record.certificateHandle = findById(session, id, CKO_CERTIFICATE, objectCount);
    const std::vector<CK_BYTE> value =
        readCertificate(session, record.certificateHandle, std::min(room, maxAnswerLength));
    record.certificateValue.assign(value.begin(), value.end());
    room -= record.certificateValue.size();
  }
}

std::span<const CertKeyRecord> TestManager::keysToTest(CK_SESSION_HANDLE session,
                                                       std::uint32_t slotIndex) {
  if (certKeyMap.empty()) getAllCertsAndKeys(session, slotIndex);
  // Looking a slot up makes its entry. A second token has no keys here: discovery runs once a run.
  const std::span<const CertKeyRecord> records = certKeyMap[slotIndex];
  return firstCertificateOnly ? records.first(std::min<std::size_t>(records.size(), 1)) : records;
}

CK_OBJECT_HANDLE TestManager::findObjectByClass(CK_SESSION_HANDLE session,
                                                CK_OBJECT_CLASS objectClass) {
  CK_ATTRIBUTE attribute{CKA_CLASS, &objectClass, sizeof objectClass};
  const CK_OBJECT_HANDLE handle = findFirst(session, {&attribute, 1}, objectCount, searchNames);
  if (objectCount == 0) sayError({"No Objects found\n"});
  return handle;
}

}  // namespace kestrel
