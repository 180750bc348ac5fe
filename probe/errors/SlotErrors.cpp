// Slots that are not there, sessions that cannot be, and logins in a wrong state. Nothing here
// costs a token a try: the PIN is the right one wherever one is given.
#include "probe/Templates.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"

namespace kestrel::probe {

namespace {

// Not one of the slots that the module lists.
CK_SLOT_ID noSlot(Bench& bench) {
  return bench.token.slot ^ CK_ULONG { 0x5aa55aa5 };
}

CK_RV open(Bench& bench, CK_SLOT_ID slot, CK_FLAGS flags) {
  return p11::C_OpenSession(slot, flags, nullptr, nullptr,
                            bench.memory.out<CK_SESSION_HANDLE>(CK_INVALID_HANDLE));
}

constexpr Expected noSlotThere{CKR_SLOT_ID_INVALID};

struct Row {
  FunctionId function;
  const char* name;
  Stage stage;
  Expected expected;
  void (*run)(Bench&);
};

constexpr Row slots[] = {
    {FunctionId::C_GetSlotInfo, "slot-unknown", Stage::initialized, noSlotThere,
     [](Bench& bench) {
       auto* const info = bench.memory.out(CK_SLOT_INFO{});
       bench.control(p11::C_GetSlotInfo(bench.token.slot, info));
       bench.expect(p11::C_GetSlotInfo(noSlot(bench), info));
     }},
    {FunctionId::C_GetTokenInfo, "slot-unknown", Stage::initialized, noSlotThere,
     [](Bench& bench) {
       auto* const info = bench.memory.out(CK_TOKEN_INFO{});
       bench.control(p11::C_GetTokenInfo(bench.token.slot, info));
       bench.expect(p11::C_GetTokenInfo(noSlot(bench), info));
     }},
    {FunctionId::C_GetMechanismList, "slot-unknown", Stage::initialized, noSlotThere,
     [](Bench& bench) {
       auto* const count = bench.memory.out<CK_ULONG>(0);
       bench.control(p11::C_GetMechanismList(bench.token.slot, nullptr, count));
       bench.expect(p11::C_GetMechanismList(noSlot(bench), nullptr, count));
     }},
    {FunctionId::C_GetMechanismInfo, "slot-unknown", Stage::initialized, noSlotThere,
     [](Bench& bench) {
       if (bench.token.mechanismCount == 0) bench.notApplicable("the token lists no mechanism");
       const CK_MECHANISM_TYPE type = bench.token.mechanisms[0].type;
       auto* const info = bench.memory.out(CK_MECHANISM_INFO{});
       bench.control(p11::C_GetMechanismInfo(bench.token.slot, type, info));
       bench.expect(p11::C_GetMechanismInfo(noSlot(bench), type, info));
     }},
    {FunctionId::C_OpenSession, "slot-unknown", Stage::session, noSlotThere,
     [](Bench& bench) { bench.expect(open(bench, noSlot(bench), CKF_SERIAL_SESSION)); }},
    {FunctionId::C_CloseAllSessions, "slot-unknown", Stage::session, noSlotThere,
     [](Bench& bench) {
       bench.expect(p11::C_CloseAllSessions(noSlot(bench)));
       const CK_RV result =
           p11::C_GetSessionInfo(bench.session, bench.memory.out(CK_SESSION_INFO{}));
       bench.require(result == CKR_OK, "after it a session of another slot is closed");
     }},
    {FunctionId::C_OpenSession,
     "not-serial",
     Stage::session,
     {CKR_SESSION_PARALLEL_NOT_SUPPORTED},
     [](Bench& bench) { bench.expect(open(bench, bench.token.slot, 0)); }},
    {FunctionId::C_OpenSession,
     "not-serial-read-write",
     Stage::session,
     {CKR_SESSION_PARALLEL_NOT_SUPPORTED},
     [](Bench& bench) { bench.expect(open(bench, bench.token.slot, CKF_RW_SESSION)); }},
    {FunctionId::C_WaitForSlotEvent,
     "nothing-happened",
     Stage::session,
     {CKR_NO_EVENT},
     [](Bench& bench) {
       auto* const slot = bench.memory.out<CK_SLOT_ID>(0);
       // What happened before the first question is one of its answers.
       for (int i = 0; i < 8; ++i) {
         if (p11::C_WaitForSlotEvent(CKF_DONT_BLOCK, slot, nullptr) != CKR_OK) break;
       }
       bench.expect(p11::C_WaitForSlotEvent(CKF_DONT_BLOCK, slot, nullptr));
     }},
    {FunctionId::C_GetFunctionStatus,
     "always",
     Stage::session,
     {CKR_FUNCTION_NOT_PARALLEL},
     [](Bench& bench) { bench.expect(p11::C_GetFunctionStatus(bench.session)); }},
    {FunctionId::C_CancelFunction,
     "always",
     Stage::session,
     {CKR_FUNCTION_NOT_PARALLEL},
     [](Bench& bench) { bench.expect(p11::C_CancelFunction(bench.session)); }},
};

// --- who is logged in ---

void requireLoggedIn(Bench& bench, bool loggedIn) {
  auto* const info = bench.memory.out(CK_SESSION_INFO{});
  bench.control(p11::C_GetSessionInfo(bench.session, info));
  const bool isUser = info->state == CKS_RW_USER_FUNCTIONS || info->state == CKS_RO_USER_FUNCTIONS;
  bench.require(isUser == loggedIn,
                loggedIn ? "after it nobody is logged in" : "after it somebody is logged in");
}

void onlyWithLogin(Bench& bench) {
  if (!bench.token.wantsLogin()) bench.notApplicable("the token wants no login");
}

constexpr Row logins[] = {
    {FunctionId::C_Login,
     "again",
     Stage::user,
     {CKR_USER_ALREADY_LOGGED_IN},
     [](Bench& bench) {
       bench.expect(bench.logIn(bench.session));
       requireLoggedIn(bench, true);
     }},
    {FunctionId::C_Login,
     "again-in-another-session",
     Stage::user,
     {CKR_USER_ALREADY_LOGGED_IN},
     [](Bench& bench) {
       bench.expect(bench.logIn(bench.openSession()));
       requireLoggedIn(bench, true);
     }},
    {FunctionId::C_Login,
     "user-type-unknown",
     Stage::user,
     {CKR_USER_TYPE_INVALID, CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN},
     [](Bench& bench) {
       bench.expect(bench.logIn(bench.session, 7));
       requireLoggedIn(bench, true);
     }},
    {FunctionId::C_Login,
     "for-no-operation",
     Stage::user,
     {CKR_OPERATION_NOT_INITIALIZED},
     [](Bench& bench) {
       bench.expect(bench.logIn(bench.session, CKU_CONTEXT_SPECIFIC));
       requireLoggedIn(bench, true);
     }},
    {FunctionId::C_Logout,
     "nobody-logged-in",
     Stage::session,
     {CKR_USER_NOT_LOGGED_IN},
     [](Bench& bench) {
       onlyWithLogin(bench);
       bench.expect(p11::C_Logout(bench.session));
     }},
    {FunctionId::C_Logout,
     "again",
     Stage::user,
     {CKR_USER_NOT_LOGGED_IN},
     [](Bench& bench) {
       onlyWithLogin(bench);
       bench.control(p11::C_Logout(bench.session));
       bench.expect(p11::C_Logout(bench.session));
       requireLoggedIn(bench, false);
     }},
};

// --- what a session that only reads may not ---

CK_RV createIn(Bench& bench, CK_SESSION_HANDLE session, bool onToken) {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_DATA})
      .add(CKA_TOKEN, onToken)
      .add(CKA_PRIVATE, false)
      .add(CKA_LABEL, ownLabel)
      .add(CKA_VALUE, View("not to stay"));
  auto* const object = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  const CK_RV result = p11::C_CreateObject(session, attributes.in(), attributes.count(), object);
  if (result == CKR_OK) p11::C_DestroyObject(bench.session, *object);
  return result;
}

constexpr Row readOnly[] = {
    {FunctionId::C_CreateObject,
     "read-only-session",
     Stage::user,
     {CKR_SESSION_READ_ONLY, CKR_TOKEN_WRITE_PROTECTED},
     [](Bench& bench) {
       bench.control(createIn(bench, bench.session, true));
       const CK_SESSION_HANDLE session = bench.openSession(0);
       bench.control(createIn(bench, session, false));
       bench.expect(createIn(bench, session, true));
     }},
};

}  // namespace

void addSlotErrors(Plan& plan) {
  for (const Row& row : slots) {
    addError(plan, row.function, row.name, row.expected, row.run).stage = row.stage;
  }
  for (const Row& row : logins) {
    Check& check = addError(plan, row.function, row.name, row.expected, row.run);
    check.stage = row.stage;
    check.spoils = true;  // a token that gets it wrong has logged somebody out, or in
  }
  for (const Row& row : readOnly) {
    addError(plan, row.function, row.name, row.expected, row.run).leaves = true;
  }
}

}  // namespace kestrel::probe
