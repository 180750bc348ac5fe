#include "probe/errors/Library.h"

#include "probe/Bench.h"

namespace kestrel::probe {

namespace {

constexpr const char* initializeClause = "C_Initialize";
constexpr const char* finalizeClause = "C_Finalize";

CK_RV lockNothing(void*) {
  return CKR_OK;
}
CK_RV makeNothing(void** mutex) {
  *mutex = nullptr;
  return CKR_OK;
}

CK_RV initializeWith(Bench& bench, const CK_C_INITIALIZE_ARGS& arguments) {
  const CK_RV result = p11::C_Initialize(bench.memory.in(arguments));
  if (result == CKR_OK) p11::C_Finalize(nullptr);
  return result;
}

// Some, but not all of the four functions; `which` has a bit for each.
template <unsigned which>
void someMutexFunctions(Bench& bench) {
  CK_C_INITIALIZE_ARGS arguments{};
  if ((which & 1) != 0) arguments.CreateMutex = makeNothing;
  if ((which & 2) != 0) arguments.DestroyMutex = lockNothing;
  if ((which & 4) != 0) arguments.LockMutex = lockNothing;
  if ((which & 8) != 0) arguments.UnlockMutex = lockNothing;
  bench.expect(initializeWith(bench, arguments));
}

void again(Bench& bench) {
  bench.expect(bench.initialize());
  auto* const info = bench.memory.out(CK_INFO{});
  bench.require(p11::C_GetInfo(info) == CKR_OK, "after it the library is not initialised");
}

void finalizeWithReserved(Bench& bench) {
  bench.expect(p11::C_Finalize(bench.memory.bytes(8)));
}

void finalizeAndBegin(Bench& bench) {
  bench.control(p11::C_Finalize(nullptr));
  bench.expect(bench.initialize());
  auto* const info = bench.memory.out(CK_INFO{});
  bench.require(p11::C_GetInfo(info) == CKR_OK, "the second time the library is not initialised");
}

// Sessions end with the library.
void sessionOfBefore(Bench& bench) {
  const CK_SESSION_HANDLE session = bench.openSession();
  bench.control(p11::C_Finalize(nullptr));
  bench.control(bench.initialize());
  bench.expect(p11::C_GetSessionInfo(session, bench.memory.out(CK_SESSION_INFO{})));
}

void functionList(Bench& bench) {
  auto** const list = bench.memory.out<CK_FUNCTION_LIST*>(nullptr);
  bench.expect(p11::C_GetFunctionList(list));
  bench.require(*list != nullptr, "gives no list");
}

struct Row {
  const char* path;
  Stage stage;
  Expected expected;
  const char* clause;
  void (*run)(Bench&);
};

constexpr Row rows[] = {
    {"C_GetFunctionList/not-initialized",
     Stage::loaded,
     {CKR_OK},
     "C_GetFunctionList",
     functionList},
    {"C_GetFunctionList/finalized", Stage::finalized, {CKR_OK}, "C_GetFunctionList", functionList},
    {"C_Initialize/one-mutex-function",
     Stage::finalized,
     {CKR_ARGUMENTS_BAD},
     initializeClause,
     someMutexFunctions<1>},
    {"C_Initialize/three-mutex-functions",
     Stage::finalized,
     {CKR_ARGUMENTS_BAD},
     initializeClause,
     someMutexFunctions<7>},
    {"C_Initialize/no-unlock-of-two",
     Stage::finalized,
     {CKR_ARGUMENTS_BAD},
     initializeClause,
     someMutexFunctions<6>},
    {"C_Initialize/again",
     Stage::initialized,
     {CKR_CRYPTOKI_ALREADY_INITIALIZED},
     initializeClause,
     again},
    {"C_Initialize/after-C_Finalize",
     Stage::initialized,
     {CKR_OK},
     initializeClause,
     finalizeAndBegin},
    {"C_Finalize/reserved-not-null",
     Stage::initialized,
     {CKR_ARGUMENTS_BAD},
     finalizeClause,
     finalizeWithReserved},
    {"C_GetSessionInfo/session-of-before-C_Finalize",
     Stage::session,
     {CKR_SESSION_HANDLE_INVALID, CKR_SESSION_CLOSED},
     finalizeClause,
     sessionOfBefore},
};

}  // namespace

void addLibraryErrors(Plan& plan) {
  for (const Row& row : rows) {
    Check check{std::string("errors/").append(row.path), row.stage, row.expected, row.clause,
                row.run};
    check.spoils = row.stage != Stage::loaded;
    plan.push_back(std::move(check));
  }
}

}  // namespace kestrel::probe
