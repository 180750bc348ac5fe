#include "probe/errors/Operations.h"

#include <fmt/format.h>

#include "probe/errors/ErrorCheck.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG enough = 4096;  // bytes of any result

// One of the calls that an operation goes on with.
struct Step {
  FunctionId KindRow::*function;
  CK_RV (Kit::*call)(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG*) const;
};

constexpr Step single{&KindRow::single, &Kit::single};
constexpr Step update{&KindRow::update, &Kit::update};
constexpr Step finish{&KindRow::final, &Kit::finish};

CK_RV take(Bench& bench, const Kit& kit, const Step& step, CK_SESSION_HANDLE session) {
  auto* const length = bench.memory.out<CK_ULONG>(enough);
  return (kit.*step.call)(session, bench.memory.bytes(enough), length);
}

Kit kitOf(Bench& bench, const KindRow& kind, const Step& step) {
  return step.call == single.call ? kitFor(bench, kind.kind) : kitInParts(bench, kind.kind);
}

void withoutInit(Bench& bench, const KindRow& kind, const Step& step) {
  const Kit kit = kitOf(bench, kind, step);
  bench.expect(take(bench, kit, step, bench.session));
  requireWorks(bench, kit);
}

void afterTheEnd(Bench& bench, const KindRow& kind, const Step& step) {
  const Kit kit = kitOf(bench, kind, step);
  bench.control(kit.begin(bench.session));
  if (step.call == single.call) {
    bench.control(take(bench, kit, single, bench.session));
  } else {
    bench.control(take(bench, kit, update, bench.session));
    bench.control(take(bench, kit, finish, bench.session));
  }
  bench.expect(take(bench, kit, step, bench.session));
  requireWorks(bench, kit);
}

// Begun in one session, gone on with in another.
void inAnotherSession(Bench& bench, const KindRow& kind, const Step& step) {
  const Kit kit = kitOf(bench, kind, step);
  const CK_SESSION_HANDLE other = bench.openSession();
  bench.control(kit.begin(bench.session));
  bench.expect(take(bench, kit, step, other));
  const CK_RV result = take(bench, kit, single, bench.session);
  bench.require(result == CKR_OK, "after it the operation of the first session does not go on");
}

void twice(Bench& bench, const KindRow& kind, const Step&) {
  const Kit kit = kitFor(bench, kind.kind);
  bench.control(kit.begin(bench.session));
  bench.expect(kit.begin(bench.session));
}

struct Misuse {
  const char* name;
  Step step;
  void (*run)(Bench&, const KindRow&, const Step&);
};

constexpr Misuse misuses[] = {
    {"not-begun", single, withoutInit},
    {"not-begun", update, withoutInit},
    {"not-begun", finish, withoutInit},
    {"ended", single, afterTheEnd},
    {"ended", update, afterTheEnd},
    {"ended", finish, afterTheEnd},
    {"other-session", single, inAnotherSession},
    {"other-session", update, inAnotherSession},
    {"other-session", finish, inAnotherSession},
};

void addBegunAs(Plan& plan, const KindRow& kind, const KindRow& other, const Step& step) {
  const FunctionId function = kind.*step.function;
  if (function == FunctionId::count) return;
  addError(plan, function, fmt::format("begun-as-{}", other.name), {CKR_OPERATION_NOT_INITIALIZED},
           [&kind, &other, step](Bench& bench) {
             const Kit kit = kitOf(bench, kind, step);
             const Kit begun = kitFor(bench, other.kind);
             bench.control(begun.begin(bench.session));
             bench.expect(take(bench, kit, step, bench.session));
           });
}

// --- what a verification says, and that it ends with that ---

Bytes damaged(Bytes signature, std::size_t at) {
  signature[at] = static_cast<char>(signature[at] ^ 1);
  return signature;
}

struct BadSignature {
  const char* name;
  Bytes (*make)(const Bytes&);
  Expected expected;
};

constexpr Expected badLength{CKR_SIGNATURE_LEN_RANGE, CKR_SIGNATURE_INVALID};

constexpr BadSignature badSignatures[] = {
    {"first-byte-damaged",
     [](const Bytes& good) { return damaged(good, 0); },
     {CKR_SIGNATURE_INVALID}},
    {"last-byte-damaged",
     [](const Bytes& good) { return damaged(good, good.size() - 1); },
     {CKR_SIGNATURE_INVALID}},
    {"of-zeros",
     [](const Bytes& good) { return Bytes(good.size(), '\0'); },
     {CKR_SIGNATURE_INVALID}},
    {"one-byte-short", [](const Bytes& good) { return good.substr(1); }, badLength},
    {"one-byte-long", [](const Bytes& good) { return good + "x"; }, badLength},
    {"empty", [](const Bytes&) { return Bytes(); }, badLength},
};

void verifyBad(Bench& bench, const Step& step, const BadSignature& bad) {
  const KindRow& kind = rowOf(Kind::verify);
  const Kit good = kitOf(bench, kind, step);
  Kit kit = good;
  kit.given = bad.make(good.given);
  bench.control(kit.begin(bench.session));
  if (step.call == finish.call) bench.control(take(bench, kit, update, bench.session));
  bench.expect(take(bench, kit, step, bench.session));
  bench.expect(take(bench, good, step, bench.session), {CKR_OPERATION_NOT_INITIALIZED});
  requireWorks(bench, good);
}

// --- searches, and states ---

void findTwice(Bench& bench) {
  bench.control(p11::C_FindObjectsInit(bench.session, nullptr, 0));
  bench.expect(p11::C_FindObjectsInit(bench.session, nullptr, 0));
}

void findNotBegun(Bench& bench) {
  auto* const count = bench.memory.out<CK_ULONG>(0);
  bench.expect(p11::C_FindObjects(bench.session, bench.memory.out<CK_ULONG>(0), 1, count));
}

void findEnded(Bench& bench) {
  bench.control(p11::C_FindObjectsInit(bench.session, nullptr, 0));
  bench.control(p11::C_FindObjectsFinal(bench.session));
  findNotBegun(bench);
}

void findFinalNotBegun(Bench& bench) {
  bench.expect(p11::C_FindObjectsFinal(bench.session));
}

void findFinalTwice(Bench& bench) {
  bench.control(p11::C_FindObjectsInit(bench.session, nullptr, 0));
  bench.control(p11::C_FindObjectsFinal(bench.session));
  bench.expect(p11::C_FindObjectsFinal(bench.session));
}

void findOtherSession(Bench& bench) {
  const CK_SESSION_HANDLE other = bench.openSession();
  bench.control(p11::C_FindObjectsInit(other, nullptr, 0));
  findNotBegun(bench);
}

void stateOfNothing(Bench& bench) {
  auto* const length = bench.memory.out<CK_ULONG>(enough);
  bench.expect(p11::C_GetOperationState(bench.session, bench.memory.bytes(enough), length));
}

void stateOfNonsense(Bench& bench) {
  bench.expect(p11::C_SetOperationState(bench.session, bench.memory.in("no state of an operation"),
                                        24, CK_INVALID_HANDLE, CK_INVALID_HANDLE));
}

struct Other {
  const char* name;
  FunctionId function;
  Expected expected;
  void (*run)(Bench&);
};

constexpr Expected notBegun{CKR_OPERATION_NOT_INITIALIZED};

constexpr Other others[] = {
    {"twice", FunctionId::C_FindObjectsInit, {CKR_OPERATION_ACTIVE, CKR_OK}, findTwice},
    {"not-begun", FunctionId::C_FindObjects, notBegun, findNotBegun},
    {"ended", FunctionId::C_FindObjects, notBegun, findEnded},
    {"other-session", FunctionId::C_FindObjects, notBegun, findOtherSession},
    {"not-begun", FunctionId::C_FindObjectsFinal, notBegun, findFinalNotBegun},
    {"ended", FunctionId::C_FindObjectsFinal, notBegun, findFinalTwice},
    {"not-begun", FunctionId::C_GetOperationState, notBegun, stateOfNothing},
    {"nonsense", FunctionId::C_SetOperationState, {CKR_SAVED_STATE_INVALID}, stateOfNonsense},
};

}  // namespace

void addOperationErrors(Plan& plan) {
  for (const KindRow& kind : kindRows) {
    addError(plan, kind.init, "twice", {CKR_OPERATION_ACTIVE, CKR_OK},
             [&kind](Bench& bench) { twice(bench, kind, single); });
    for (const Misuse& misuse : misuses) {
      const FunctionId function = kind.*misuse.step.function;
      if (function == FunctionId::count) continue;
      addError(plan, function, misuse.name, notBegun,
               [&kind, &misuse](Bench& bench) { misuse.run(bench, kind, misuse.step); });
    }
    for (const KindRow& other : kindRows) {
      if (&other == &kind || other.update == FunctionId::count) continue;  // few have those
      for (const Step& step : {single, update, finish}) addBegunAs(plan, kind, other, step);
    }
  }
  for (const Step& step : {single, finish}) {
    const FunctionId function = rowOf(Kind::verify).*step.function;
    for (const BadSignature& bad : badSignatures) {
      addError(plan, function, fmt::format("signature-{}", bad.name), bad.expected,
               [step, &bad](Bench& bench) { verifyBad(bench, step, bad); });
    }
  }
  for (const Other& other : others) {
    addError(plan, other.function, other.name, other.expected, other.run);
  }
}

}  // namespace kestrel::probe
