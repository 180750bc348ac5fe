#include "probe/errors/Matrix.h"

#include <fmt/format.h>

#include "probe/errors/AnyCall.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG nowhere = ~CK_ULONG{0};  // no slot, no handle, no user

struct Row {
  FunctionId function;
  bool hasSession;
  CK_RV (*call)(Bench&, CK_ULONG first);
};

// No PIN is given to anything, and no slot that could be one. CKU_USER is 1: whoever gives this to
// a token without looking at the session has tried no PIN.
CK_RV logIn(Bench& bench, CK_ULONG session) {
  return p11::C_Login(session, nowhere, bench.memory.bytes(anyRoom), 0);
}
CK_RV initToken(Bench& bench, CK_ULONG) {
  return p11::C_InitToken(nowhere, bench.memory.bytes(anyRoom), 0, bench.memory.bytes(anyRoom));
}
CK_RV initPin(Bench& bench, CK_ULONG) {
  return p11::C_InitPIN(CK_INVALID_HANDLE, bench.memory.bytes(anyRoom), 0);
}
CK_RV setPin(Bench& bench, CK_ULONG) {
  return p11::C_SetPIN(CK_INVALID_HANDLE, bench.memory.bytes(anyRoom), 0,
                       bench.memory.bytes(anyRoom), 0);
}
CK_RV openSession(Bench& bench, CK_ULONG slot) {
  auto* const session = bench.memory.out<CK_SESSION_HANDLE>(0);
  return p11::C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, session);
}

template <auto& function>
CK_RV plainly(Bench& bench, CK_ULONG first) {
  return callAnyhow(bench, function, first);
}

constexpr auto callOf(FunctionId id, CK_RV (*usual)(Bench&, CK_ULONG)) {
  switch (id) {
    case FunctionId::C_Login:
      return logIn;
    case FunctionId::C_InitToken:
      return initToken;
    case FunctionId::C_InitPIN:
      return initPin;
    case FunctionId::C_SetPIN:
      return setPin;
    case FunctionId::C_OpenSession:
      return openSession;
    default:
      return usual;
  }
}

constexpr Row rows[] = {
#define KESTREL_PLAIN(name) {FunctionId::name, false, callOf(FunctionId::name, plainly<p11::name>)},
#define KESTREL_SESSION(name) \
  {FunctionId::name, true, callOf(FunctionId::name, plainly<p11::name>)},
    KESTREL_PKCS11_FUNCTIONS(KESTREL_PLAIN, KESTREL_SESSION)
#undef KESTREL_PLAIN
#undef KESTREL_SESSION
};

// The two functions that only say that they are of another time.
constexpr bool isLegacy(FunctionId id) {
  return id == FunctionId::C_GetFunctionStatus || id == FunctionId::C_CancelFunction;
}

constexpr bool setsPin(FunctionId id) {
  return id == FunctionId::C_InitPIN || id == FunctionId::C_SetPIN;
}

constexpr bool needsNoLibrary(FunctionId id) {
  return id == FunctionId::C_Initialize || id == FunctionId::C_GetFunctionList;
}

// A handle that the session never had.
CK_SESSION_HANDLE noSession(Bench&) {
  return CK_INVALID_HANDLE;
}

CK_SESSION_HANDLE closedSession(Bench& bench) {
  auto* const session = bench.memory.out<CK_SESSION_HANDLE>(0);
  bench.control(
      p11::C_OpenSession(bench.token.slot, CKF_SERIAL_SESSION, nullptr, nullptr, session));
  const CK_SESSION_HANDLE handle = *session;
  bench.control(p11::C_CloseSession(handle));
  return handle;
}

CK_SESSION_HANDLE inventedSession(Bench& bench) {
  return bench.session ^ CK_ULONG { 0x5aa55aa5 };
}

struct BadSession {
  const char* name;
  CK_SESSION_HANDLE (*handle)(Bench&);
};

constexpr BadSession badSessions[] = {
    {"session-0", noSession},
    {"session-closed", closedSession},
    {"session-never-opened", inventedSession},
};

constexpr const char* sessionClause =
    "Cryptoki function return values for functions that use a session handle";

void addWithoutLibrary(Plan& plan, const Row& row, const char* name, Stage stage) {
  Expected expected{CKR_CRYPTOKI_NOT_INITIALIZED};
  if (isLegacy(row.function)) expected = {CKR_CRYPTOKI_NOT_INITIALIZED, CKR_FUNCTION_NOT_PARALLEL};
  Check check{fmt::format("errors/{}/{}", nameOf(row.function), name), stage, expected,
              "All other Cryptoki function return values"};
  check.function = row.function;
  check.run = [&row](Bench& bench) { bench.expect(row.call(bench, nowhere)); };
  plan.push_back(std::move(check));
}

void addWithoutSession(Plan& plan, const Row& row, const BadSession& bad) {
  Expected expected{CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED};
  if (isLegacy(row.function)) {
    expected = {CKR_FUNCTION_NOT_PARALLEL, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED};
  }
  Check check{fmt::format("errors/{}/{}", nameOf(row.function), bad.name), Stage::session, expected,
              sessionClause};
  check.function = row.function;
  check.run = [&row, &bad](Bench& bench) {
    const CK_SESSION_HANDLE handle = bad.handle(bench);
    bench.expect(row.call(bench, handle));
    // The check's own session is as it was.
    auto* const info = bench.memory.out(CK_SESSION_INFO{});
    const CK_RV result = p11::C_GetSessionInfo(bench.session, info);
    bench.require(result == CKR_OK, "after it a session that is open is of no use");
  };
  plan.push_back(std::move(check));
}

}  // namespace

void addMatrix(Plan& plan) {
  for (const Row& row : rows) {
    if (needsNoLibrary(row.function)) continue;
    addWithoutLibrary(plan, row, "not-initialized", Stage::loaded);
  }
  for (const Row& row : rows) {
    if (needsNoLibrary(row.function) || setsPin(row.function) ||
        row.function == FunctionId::C_InitToken) {
      continue;
    }
    addWithoutLibrary(plan, row, "finalized", Stage::finalized);
  }
  for (const Row& row : rows) {
    if (!row.hasSession || setsPin(row.function)) continue;
    for (const BadSession& bad : badSessions) addWithoutSession(plan, row, bad);
  }
}

}  // namespace kestrel::probe
