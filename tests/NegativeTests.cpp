// negativeTests: calls out of order and with bad arguments, each with the one result it must give.
// The operator sees a passed line per case; the first other result ends the process.
#include <array>
#include <functional>
#include <span>
#include <string>

#include "harness/CkrName.h"
#include "harness/Notes.h"
#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

// What the cases of one token share. Every buffer has room for the length that is announced with it
// and, where that is too little on purpose, for what a careless module writes all the same.
struct Bench {
  CK_SLOT_ID slot = 0;
  Pin pin;  // as stored for the slot position; empty while none is
  std::function<Pin()> obtainPin;
  CK_SESSION_HANDLE session = 0;

  CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
  CK_ATTRIBUTE keySearch{CKA_CLASS, &keyClass, sizeof keyClass};
  std::array<CK_OBJECT_HANDLE, 16> keys{};  // the first one serves, found or not
  CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};

  std::array<CK_BYTE, 513> data{};
  std::array<CK_BYTE, 256> ciphertext{};
  std::array<CK_BYTE, 256> secondCiphertext{};
  std::array<CK_BYTE, 1024> output{};
  std::array<CK_SLOT_ID, 1024> slotIds{};
};

struct NegativeCase {
  const char* reportName;
  CK_RV expected;
  CK_RV (*call)(Bench&);
  const char* function = nullptr;  // where the report calls it by another's name
};

// A step between two cases: the PIN of the slot position is asked for, unless it is known.
constexpr NegativeCase obtainPin{nullptr, CKR_OK, nullptr};

constexpr CK_ULONG fixedPinLength = 8;  // announced whatever the PIN's own length
constexpr CK_SESSION_HANDLE noSession = 0x10010100;

CK_RV initialize(Bench&) {
  return p11::C_Initialize(nullptr);
}

CK_RV finalize(Bench&) {
  return p11::C_Finalize(nullptr);
}

template <CK_BBOOL tokenPresent>
CK_RV listSlotsWithoutCount(Bench&) {
  return p11::C_GetSlotList(tokenPresent, nullptr, nullptr);
}

CK_RV listSlotsIntoNoRoom(Bench& b) {
  CK_ULONG count = 0;
  return p11::C_GetSlotList(CK_FALSE, b.slotIds.data(), &count);
}

template <CK_FLAGS flags>
CK_RV openSession(Bench& b) {
  return p11::C_OpenSession(b.slot, flags, nullptr, nullptr, &b.session);
}

CK_RV openSessionWithoutHandle(Bench& b) {
  return p11::C_OpenSession(b.slot, CKF_SERIAL_SESSION, nullptr, nullptr, nullptr);
}

CK_RV closeSession(Bench& b) {
  return p11::C_CloseSession(b.session);
}

CK_RV logIn(Bench& b) {
  return p11::C_Login(b.session, CKU_USER, b.pin.data(), b.pin.length());
}

CK_RV logOut(Bench& b) {
  return p11::C_Logout(b.session);
}

// Only the second result counts.
CK_RV logOutOfNoSessionTwice(Bench&) {
  p11::C_Logout(0);
  return p11::C_Logout(0);
}

CK_RV findKeys(Bench& b) {
  CK_ULONG count = 0;
  const CK_RV result = p11::C_FindObjects(b.session, b.keys.data(), b.keys.size(), &count);
  return ifSane(result, count <= b.keys.size());
}

CK_RV signIntoOneByte(Bench& b) {
  CK_ULONG length = 1;
  return p11::C_Sign(b.session, b.data.data(), 1, b.output.data(), &length);
}

template <const auto& decrypt, auto input>
CK_RV decryptIntoOneByte(Bench& b) {
  CK_ULONG length = 1;
  return decrypt(b.session, (b.*input).data(), (b.*input).size(), b.output.data(), &length);
}

// Three cases go by the name of another function: reports of all releases read so.
constexpr NegativeCase libraryCases[] = {
    {"C_Finalize", CKR_CRYPTOKI_ALREADY_INITIALIZED, initialize, "C_Initialize"},
    {"C_GetSlotInfo", CKR_ARGUMENTS_BAD, [](Bench&) { return p11::C_GetSlotInfo(0, nullptr); }},
    {"C_GetSlotList", CKR_ARGUMENTS_BAD, listSlotsWithoutCount<CK_TRUE>},
    {"C_GetSlotList", CKR_ARGUMENTS_BAD, listSlotsWithoutCount<CK_FALSE>},
    {"C_GetSlotList", CKR_BUFFER_TOO_SMALL, listSlotsIntoNoRoom},
    {"C_Finalize", CKR_OK, finalize},
    {"C_GetSlotList", CKR_CRYPTOKI_NOT_INITIALIZED, finalize, "C_Finalize"},
    {"C_GetSlotList", CKR_FUNCTION_NOT_SUPPORTED, [](Bench&) { return p11::C_CancelFunction(0); },
     "C_CancelFunction"},
    {"C_Initialize", CKR_OK, initialize},
};

constexpr NegativeCase sessionCases[] = {
    {"C_OpenSession", CKR_OK, openSession<CKF_SERIAL_SESSION>},
    {"C_GetSessionInfo", CKR_ARGUMENTS_BAD,
     [](Bench& b) { return p11::C_GetSessionInfo(b.session, nullptr); }},
    obtainPin,
    {"C_Login", CKR_OK, logIn},
    {"Find objects init", CKR_OK,
     [](Bench& b) { return p11::C_FindObjectsInit(b.session, &b.keySearch, 1); }},
    {"Find objects", CKR_OK, findKeys},
    {"Find objects final", CKR_OK, [](Bench& b) { return p11::C_FindObjectsFinal(b.session); }},
    {"C_SignInit", CKR_ARGUMENTS_BAD,
     [](Bench& b) { return p11::C_SignInit(b.session, nullptr, b.keys[0]); }},
    {"C_SignInit", CKR_OK,
     [](Bench& b) { return p11::C_SignInit(b.session, &b.mechanism, b.keys[0]); }},
    {"C_Sign", CKR_BUFFER_TOO_SMALL, signIntoOneByte},
    {"C_Sign", CKR_BUFFER_TOO_SMALL, signIntoOneByte},
    {"C_SignUpdate", CKR_BUFFER_TOO_SMALL,
     [](Bench& b) { return p11::C_SignUpdate(b.session, b.data.data(), b.data.size()); }},
    {"C_DecryptInit", CKR_ARGUMENTS_BAD,
     [](Bench& b) { return p11::C_DecryptInit(b.session, nullptr, b.keys[0]); }},
    {"C_DecryptInit", CKR_OK,
     [](Bench& b) { return p11::C_DecryptInit(b.session, &b.mechanism, b.keys[0]); }},
    {"C_Decrypt", CKR_BUFFER_TOO_SMALL, decryptIntoOneByte<p11::C_Decrypt, &Bench::ciphertext>},
    {"C_DecryptUpdate", CKR_BUFFER_TOO_SMALL,
     decryptIntoOneByte<p11::C_DecryptUpdate, &Bench::secondCiphertext>},
    {"C_Logout", CKR_OK, logOut},
    {"C_CloseSession", CKR_OK, closeSession},
};

constexpr NegativeCase loginCases[] = {
    {"C_OpenSession", CKR_SESSION_PARALLEL_NOT_SUPPORTED, openSession<CKF_RW_SESSION>},
    {"C_OpenSession", CKR_ARGUMENTS_BAD, openSessionWithoutHandle},
    {"C_OpenSession", CKR_OK, openSession<CKF_SERIAL_SESSION>},
    {"C_Login", CKR_USER_TYPE_INVALID,
     [](Bench& b) { return p11::C_Login(b.session, CKU_SO, b.pin.data(), fixedPinLength); }},
    {"C_Login", CKR_ARGUMENTS_BAD,
     [](Bench& b) { return p11::C_Login(b.session, CKU_USER, nullptr, fixedPinLength); }},
    obtainPin,
    {"C_Login", CKR_OK, logIn},
    {"C_Login", CKR_USER_ALREADY_LOGGED_IN,
     [](Bench& b) { return p11::C_Login(b.session, CKU_USER, b.pin.data(), fixedPinLength); }},
    {"C_Logout", CKR_SESSION_HANDLE_INVALID, logOutOfNoSessionTwice},
    {"C_Logout", CKR_OK, logOut},
    {"C_Logout", CKR_USER_NOT_LOGGED_IN, logOut},
    {"C_CloseSession", CKR_SESSION_HANDLE_INVALID,
     [](Bench&) { return p11::C_CloseSession(noSession); }},
    {"C_CloseSession", CKR_OK, closeSession},
    {"C_CloseSession", CKR_SESSION_HANDLE_INVALID, closeSession},
};

void noteExpectation(const NegativeCase& row) {
  if (row.function != nullptr) note(std::string(functionNote).append(row.function));
  if (row.expected != CKR_OK) {
    note(std::string(expectedNote).append(ckrName(static_cast<std::uint32_t>(row.expected))));
  }
}

// Returns the result of the last case.
CK_RV runCases(std::span<const NegativeCase> cases, Bench& bench) {
  CK_RV result = CKR_OK;
  for (const NegativeCase& row : cases) {
    if (row.call == nullptr) {
      bench.pin = bench.obtainPin();
      continue;
    }
    result = row.call(bench);
    if (result != row.expected) noteExpectation(row);
    requireResult(row.reportName, result, row.expected);
  }
  return result;
}

// Runs the cases on every token present, each token with handles and buffers of its own.
CK_RV runOnTokens(TestManager& manager, std::span<const NegativeCase> cases) {
  manager.populateSlotList();
  CK_RV result = CKR_OK;
  for (const TokenSlot token : PresentTokens(manager.slots())) {
    Bench bench;
    bench.slot = token.id;
    bench.pin = manager.storedPin(token.position);
    bench.obtainPin = [&] {
      manager.getPin(token.position);
      return manager.storedPin(token.position);
    };
    result = runCases(cases, bench);
  }
  return result;
}

}  // namespace

CK_RV TestManager::negativeLibraryTests() {
  report << "Negative Tests Part 1/3\n";
  Bench bench;
  return runCases(libraryCases, bench);
}

CK_RV TestManager::negativeSessionTests() {
  report << "Negative Tests Part 2/3\n";
  return runOnTokens(*this, sessionCases);
}

CK_RV TestManager::negativeLoginTests() {
  report << "Negative Tests Part 3/3\n";
  return runOnTokens(*this, loginCases);
}

CK_RV TestManager::negativeTests() {
  negativeLibraryTests();
  negativeSessionTests();
  return negativeLoginTests();
}

}  // namespace kestrel
