// decryptData: has every token decrypt what OpenSSL encrypted for its keys, through C_Decrypt, and
// tries the session, mechanism and random-number calls on the way. The operator sees the plaintext
// dumped and judges it: the bytes are not compared.
#include <array>
#include <initializer_list>

#include "harness/Bytes.h"
#include "harness/Report.h"
#include "tests/Decryption.h"
#include "tests/UserSession.h"

namespace kestrel {

namespace {

// The mechanism calls and C_CloseAllSessions go to this slot, whichever is under test: they also
// try how a module takes a slot ID that need not be one of its own.
constexpr CK_SLOT_ID fixedSlot = 1;

constexpr CK_ULONG maxMechanisms = CK_ULONG{1} << 16;  // 512 KiB of types; more is no answer

constexpr std::array mechanisms{
    rsaPkcs,
    DecryptionMechanism{
        CKM_RSA_PKCS_OAEP, RSA_PKCS1_OAEP_PADDING,
        CK_RSA_PKCS_OAEP_PARAMS{CKM_SHA_1, CKG_MGF1_SHA1, CKZ_DATA_SPECIFIED, nullptr, 0}},
};

void showMessage(CK_SESSION_HANDLE /*session*/, Plaintext& plaintext) {
  report << "\nDecrypted Message:\n";
  hexDump(plaintext.storage.data(), static_cast<std::uint32_t>(plaintext.length));
}

constexpr DecryptionWay singlePart{mechanisms, p11::C_Decrypt, showMessage};

void queryMechanisms() {
  CK_ULONG count = 0;
  CK_RV result = p11::C_GetMechanismList(fixedSlot, nullptr, &count);
  requireResult("C_GetMechanismList", ifSane(result, count <= maxMechanisms));
  if (count == 0) return;
  std::vector<CK_MECHANISM_TYPE> types(count);
  result = p11::C_GetMechanismList(fixedSlot, types.data(), &count);
  requireResult("C_GetMechanismList", ifSane(result, count <= types.size()));
  CK_MECHANISM_INFO info{};
  require(p11::C_GetMechanismInfo, fixedSlot, types[0], &info);
}

// Requires CKR_OK or one of the results by which a token says that it has no such thing.
void requireUnlessLacking(const char* name, CK_RV result, std::initializer_list<CK_RV> lacking) {
  for (const CK_RV accepted : lacking) {
    if (result == accepted) result = CKR_OK;
  }
  requireResult(name, result);
}

void useRandomNumbers(CK_SESSION_HANDLE session) {
  std::array<CK_BYTE, 100> bytes{};
  requireUnlessLacking("C_SeedRandom", p11::C_SeedRandom(session, bytes.data(), bytes.size()),
                       {CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_RANDOM_NO_RNG});
  bytes.fill(0);
  requireUnlessLacking("C_GenerateRandom",
                       p11::C_GenerateRandom(session, bytes.data(), bytes.size()),
                       {CKR_RANDOM_NO_RNG});
}

}  // namespace

CK_RV TestManager::decryptData() {
  const std::optional<SlotList> list = fetchOwnSlotList();
  if (!list) return CKR_OK;
  for (const TokenSlot token : PresentTokens(list->all())) {
    CK_TOKEN_INFO tokenInfo{};
    require(p11::C_GetTokenInfo, token.id, &tokenInfo);
    const auto decrypt = [&](CK_SESSION_HANDLE session) {
      CK_SESSION_INFO sessionInfo{};
      require(p11::C_GetSessionInfo, session, &sessionInfo);
      queryMechanisms();
      useRandomNumbers(session);
      return decryptWithKeyPairs(session, token.position);
    };
    if (asUser(*this, token, decrypt, ~CK_SESSION_HANDLE{0}) != CKR_OK) break;
  }
  require(p11::C_CloseAllSessions, fixedSlot);
  return CKR_OK;
}

CK_RV TestManager::decryptWithKeyPairs(CK_SESSION_HANDLE session, CK_ULONG slotPosition) {
  return decryptEach(*this, singlePart, session, static_cast<std::uint32_t>(slotPosition));
}

}  // namespace kestrel
