#include "tests/Signing.h"

#include <openssl/sha.h>

#include <algorithm>

#include "harness/Bytes.h"
#include "harness/Report.h"
#include "harness/SignatureMechanisms.h"
#include "tests/UserSession.h"

namespace kestrel {

namespace {

// The terminating NUL is signed too.
constexpr CK_BYTE message[] = "This is a test string to sign";

// DER of a DigestInfo for SHA-256, up to the digest.
constexpr std::array<CK_BYTE, 19> digestInfoHeader{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                   0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                   0x01, 0x05, 0x00, 0x04, 0x20};

// As many mechanisms as the module is told there is room for: reports of all releases were made
// with this number.
constexpr CK_ULONG mechanismRoom = 800;

// Writes what the token is to sign and returns its length.
CK_ULONG writeTokenData(TokenData kind, CK_BYTE* data) {
  switch (kind) {
    case TokenData::hash:
      SHA256(message, sizeof message, data);
      return SHA256_DIGEST_LENGTH;
    case TokenData::digestInfo:
      data = std::ranges::copy(digestInfoHeader, data).out;
      SHA256(message, sizeof message, data);
      return digestInfoHeader.size() + SHA256_DIGEST_LENGTH;
    case TokenData::message:
      break;
  }
  std::ranges::copy(message, data);
  return sizeof message;
}

// Asks for the signature's length and sees to it that there is room.
void queryLength(Signing& signing, const SigningWay& way) {
  const CK_RV result = way.output(signing, nullptr);
  requireResult(way.outputName, ifSane(result, signing.signatureLength <= maxAnswerLength));
  if (signing.signature.size() < signing.signatureLength) {
    signing.signature.resize(signing.signatureLength);
  }
}

// From behind C_SignInit to the signature; the result of the last call is the caller's to report.
CK_RV sign(Signing& signing, const SigningWay& way) {
  way.feed(signing);
  queryLength(signing, way);
  std::ranges::fill(signing.signature, CK_BYTE{0});  // nothing of the one before
  const CK_RV result = way.output(signing, signing.signature.data());
  return ifSane(result, signing.signatureLength <= signing.signature.size());
}

void dumpSignature(const Signing& signing) {
  report << "\nData in buffer after signature operation: \n";
  hexDump(signing.signature.data(), static_cast<std::uint32_t>(signing.signatureLength));
}

void signAndVerify(TestManager& manager, const SigningWay& way, Signing& signing,
                   const CertKeyRecord& record) {
  way.begin(signing);
  CK_RV result = sign(signing, way);
  if (result == CKR_USER_NOT_LOGGED_IN) {
    report << way.loginNotice;
    manager.loginContextSpecific(signing.session, record.slotIndex);
    signing.init();
    result = sign(signing, way);
  }
  requireResult(way.outputName, result);
  dumpSignature(signing);
  requireResult("verifySig", manager.verifySig(signing.session, signing.mechanism.mechanism,
                                               message, sizeof message, signing.signature.data(),
                                               signing.signatureLength, record));
}

}  // namespace

void dumpMessage() {
  report << "\nData in buffer before signature operation: \n";
  hexDump(message, sizeof message);
}

void Signing::form(CK_MECHANISM_TYPE type) {
  const SignatureMechanism* const row = findSignatureMechanism(type);
  mechanism = {type, nullptr, 0};
  data.fill(0);
  dataLength = writeTokenData(row == nullptr ? TokenData::message : row->tokenData, data.data());
  if (row == nullptr || row->padding != Padding::pss) return;
  // The salt length of all ones is no byte count: it asks for one as long as the digest.
  pssParameters = {row->digest->type, row->digest->maskGeneration, ~CK_ULONG{0}};
  mechanism.pParameter = &pssParameters;
  mechanism.ulParameterLen = sizeof pssParameters;
}

void Signing::init() {
  CK_MECHANISM handed = mechanism;
  require(p11::C_SignInit, session, &handed, key);
}

void signEach(TestManager& manager, const SigningWay& way, CK_SESSION_HANDLE session,
              std::span<const CK_MECHANISM_TYPE> mechanisms, std::uint32_t slotIndex) {
  Signing signing(session);
  for (const CertKeyRecord& record : manager.keysToTest(session, slotIndex)) {
    signing.key = record.privateKeyHandle;
    report << std::dec << "\n--------- Private Key Handle: " << signing.key << " ---------\n\n";
    for (const CK_MECHANISM_TYPE mechanism : mechanisms) {
      if (mechanism == CKM_RSA_PKCS_OAEP) continue;
      signing.form(mechanism);
      signAndVerify(manager, way, signing, record);
    }
  }
}

void signOnTokens(TestManager& manager, SigningOperation operation, const char* reportName) {
  manager.populateSlotList();
  for (const TokenSlot token : PresentTokens(manager.slots())) {
    asUser(manager, token, [&](CK_SESSION_HANDLE session) {
      std::array<CK_MECHANISM_TYPE, mechanismRoom> mechanisms{};
      CK_ULONG count = mechanismRoom;
      CK_RV result = p11::C_GetMechanismList(token.id, mechanisms.data(), &count);
      requireResult("C_GetMechanismList", ifSane(result, count <= mechanismRoom));
      result = (manager.*operation)(session, mechanisms.data(), count,
                                    static_cast<std::uint32_t>(token.position));
      if (reportName != nullptr) requireResult(reportName, result);
      return CKR_OK;
    });
  }
}

}  // namespace kestrel
