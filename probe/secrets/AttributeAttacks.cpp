// Attributes that guard a key, and what they are worth: values in plain sight, guards that are
// taken away, histories that are made up.
#include <fmt/format.h>

#include "probe/KeyAttributes.h"
#include "probe/OutsidePublic.h"
#include "probe/secrets/Secrets.h"

namespace kestrel::probe {

namespace {

// --- values in plain sight ---

struct Hidden {
  const char* name;
  bool sensitive, extractable;
};

constexpr Hidden hiddenRows[] = {
    {"sensitive", true, true}, {"unextractable", false, false}, {"both", true, false}};

void readSecret(Bench& bench, const Hidden& row) {
  const CK_OBJECT_HANDLE key = makeSecret(bench, row.sensitive, row.extractable);
  CK_BYTE* const room = bench.memory.bytes(64);
  auto* const wanted = bench.memory.out(CK_ATTRIBUTE{CKA_VALUE, room, 64});
  const CK_RV result = p11::C_GetAttributeValue(bench.session, key, wanted, 1);
  bench.refused(result, bench.check.expected, "the value of the key is in plain sight");
  bench.require(Memory::isUntouched(room, 64), "writes the value, and says that it does not");
}

struct PrivateNumber {
  const char* name;
  CK_ATTRIBUTE_TYPE type;
  bool ofRsa;
};

constexpr PrivateNumber privateNumbers[] = {
    {"RSA-private-exponent", CKA_PRIVATE_EXPONENT, true},
    {"RSA-prime-1", CKA_PRIME_1, true},
    {"RSA-prime-2", CKA_PRIME_2, true},
    {"RSA-exponent-1", CKA_EXPONENT_1, true},
    {"RSA-exponent-2", CKA_EXPONENT_2, true},
    {"RSA-coefficient", CKA_COEFFICIENT, true},
    {"EC-value", CKA_VALUE, false},
};

void readPrivate(Bench& bench, const PrivateNumber& row, const Hidden& hidden) {
  const OutsideKey curve = row.ofRsa ? nullptr : outside::newEcKey("P-256");
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_PRIVATE_KEY})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, hidden.sensitive)
      .add(CKA_EXTRACTABLE, hidden.extractable)
      .add(CKA_SIGN, true);
  addPrivateNumbers(attributes, row.ofRsa ? bench.keys.outsideRsa() : curve.get(), 0);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key));
  CK_BYTE* const room = bench.memory.bytes(512);
  auto* const wanted = bench.memory.out(CK_ATTRIBUTE{row.type, room, 512});
  const CK_RV result = p11::C_GetAttributeValue(bench.session, *key, wanted, 1);
  bench.refused(result, bench.check.expected, "a private number is in plain sight");
}

// --- guards that are taken away ---

struct Guard {
  const char* name;  // of what the key becomes
  CK_ATTRIBUTE_TYPE type;
  bool on;  // the value that guards
  const char* lost;
};

constexpr Guard guards[] = {
    {"not-sensitive", CKA_SENSITIVE, true, "the key is sensitive no more"},
    {"extractable", CKA_EXTRACTABLE, false, "the key can be extracted now"},
    {"wrapped-by-any", CKA_WRAP_WITH_TRUSTED, true, "the key may be wrapped by any other now"},
};

CK_OBJECT_HANDLE guarded(Bench& bench, const Guard& guard) {
  const bool apart = guard.type == CKA_WRAP_WITH_TRUSTED;
  const CK_OBJECT_HANDLE key = makeSecret(bench, true, apart, [&](Template& attributes) {
    if (apart) attributes.add(guard.type, guard.on);
  });
  const std::optional<CK_ULONG> value = readNumber(bench.session, key, guard.type);
  if (value != CK_ULONG{guard.on}) bench.notApplicable("the token does not keep the attribute");
  return key;
}

// A call that should have been refused and was not: does the key have its guard?
void judgeGuard(Bench& bench, CK_RV result, CK_OBJECT_HANDLE key, const Guard& guard) {
  if (result != CKR_OK) return bench.expect(result);
  bench.expect(result, {CKR_OK});
  const bool lost = readNumber(bench.session, key, guard.type) != CK_ULONG{guard.on};
  if (lost) bench.wrong(guard.lost);
  bench.end(Verdict::deviates, "and changes nothing");
}

void setAway(Bench& bench, const Guard& guard) {
  const CK_OBJECT_HANDLE key = guarded(bench, guard);
  Template change(bench.memory);
  change.add(guard.type, !guard.on);
  const CK_RV result = p11::C_SetAttributeValue(bench.session, key, change.in(), 1);
  judgeGuard(bench, result, key, guard);
}

void copyAway(Bench& bench, const Guard& guard) {
  const CK_OBJECT_HANDLE key = guarded(bench, guard);
  Template change(bench.memory);
  change.add(CKA_TOKEN, false);
  auto* const copy = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CopyObject(bench.session, key, change.in(), 1, copy));
  change.add(guard.type, !guard.on);
  const CK_RV result = p11::C_CopyObject(bench.session, key, change.in(), 2, copy);
  judgeGuard(bench, result, *copy, guard);
}

// A plain copy is as well guarded as the key.
void plainCopy(Bench& bench, const Guard& guard) {
  const CK_OBJECT_HANDLE key = guarded(bench, guard);
  Template change(bench.memory);
  change.add(CKA_TOKEN, false);
  auto* const copy = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.expect(p11::C_CopyObject(bench.session, key, change.in(), 1, copy));
  const std::optional<CK_ULONG> value = readNumber(bench.session, *copy, guard.type);
  bench.require(value == CK_ULONG{guard.on}, guard.lost);
}

// --- histories ---

struct History {
  const char* name;
  CK_ATTRIBUTE_TYPE type;
};

constexpr History histories[] = {{"local", CKA_LOCAL},
                                 {"always-sensitive", CKA_ALWAYS_SENSITIVE},
                                 {"never-extractable", CKA_NEVER_EXTRACTABLE}};

void requireHistory(Bench& bench, CK_OBJECT_HANDLE key, const History& history, bool expected) {
  const std::optional<CK_ULONG> value = readNumber(bench.session, key, history.type);
  if (value == CK_ULONG{expected}) return;
  bench.end(value ? Verdict::wrong : Verdict::deviates, value ? "the history of the key is not true"
                                                        : expected ? "the key has no such history"
                                                                   : "the key has no history");
}

void afterGeneration(Bench& bench, const History& history) {
  Template attributes(bench.memory);
  attributes.add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, true)
      .add(CKA_EXTRACTABLE, false)
      .add(CKA_VALUE_LEN, CK_ULONG{16});
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.expect(p11::C_GenerateKey(bench.session, mechanismOf(bench, CKM_AES_KEY_GEN),
                                  attributes.in(), attributes.count(), key));
  requireHistory(bench, *key, history, true);
}

void afterCreation(Bench& bench, const History& history) {
  const CK_OBJECT_HANDLE key = makeSecret(bench, true, false);
  bench.expect(CKR_OK);
  requireHistory(bench, key, history, false);
}

// --- what is prohibited ---

struct Prohibition {
  const char* name;
  CK_ATTRIBUTE_TYPE type;
  FunctionId function;
  CK_RV (*call)(Bench&, CK_OBJECT_HANDLE);
};

constexpr Prohibition prohibitions[] = {
    {"not-copyable", CKA_COPYABLE, FunctionId::C_CopyObject,
     [](Bench& bench, CK_OBJECT_HANDLE key) {
       Template change(bench.memory);
       change.add(CKA_TOKEN, false);
       return p11::C_CopyObject(bench.session, key, change.in(), 1,
                                bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
     }},
    {"not-modifiable", CKA_MODIFIABLE, FunctionId::C_SetAttributeValue,
     [](Bench& bench, CK_OBJECT_HANDLE key) {
       Template change(bench.memory);
       change.add(CKA_LABEL, View("another label"));
       return p11::C_SetAttributeValue(bench.session, key, change.in(), 1);
     }},
    {"not-destroyable", CKA_DESTROYABLE, FunctionId::C_DestroyObject,
     [](Bench& bench, CK_OBJECT_HANDLE key) { return p11::C_DestroyObject(bench.session, key); }},
};

void prohibited(Bench& bench, const Prohibition& row) {
  const auto with = [&](bool permitted) {
    return makeSecret(bench, true, false,
                      [&](Template& attributes) { attributes.add(row.type, permitted); });
  };
  bench.control(row.call(bench, with(true)));
  bench.expect(row.call(bench, with(false)));
}

}  // namespace

void addAttributeAttacks(Plan& plan) {
  for (const Hidden& hidden : hiddenRows) {
    addAttack(plan, fmt::format("read/AES-value/{}", hidden.name), FunctionId::C_GetAttributeValue,
              {CKR_ATTRIBUTE_SENSITIVE}, [&](Bench& bench) { readSecret(bench, hidden); });
    for (const PrivateNumber& row : privateNumbers) {
      addAttack(plan, fmt::format("read/{}/{}", row.name, hidden.name),
                FunctionId::C_GetAttributeValue, {CKR_ATTRIBUTE_SENSITIVE},
                [&](Bench& bench) { readPrivate(bench, row, hidden); });
    }
  }
  for (const Guard& guard : guards) {
    addAttack(plan, fmt::format("set-to-{}", guard.name), FunctionId::C_SetAttributeValue, refusals,
              [&](Bench& bench) { setAway(bench, guard); });
    addAttack(plan, fmt::format("copy-to-{}", guard.name), FunctionId::C_CopyObject, refusals,
              [&](Bench& bench) { copyAway(bench, guard); });
    addAttack(plan, fmt::format("plain-copy-{}", guard.name), FunctionId::C_CopyObject, {CKR_OK},
              [&](Bench& bench) { plainCopy(bench, guard); });
  }
  for (const History& history : histories) {
    addAttack(plan, fmt::format("history/generated/{}", history.name), FunctionId::C_GenerateKey,
              {CKR_OK}, [&](Bench& bench) { afterGeneration(bench, history); })
        .mechanism = NeededMechanism{CKM_AES_KEY_GEN, CKF_GENERATE};
    addAttack(plan, fmt::format("history/created/{}", history.name), FunctionId::C_CreateObject,
              {CKR_OK}, [&](Bench& bench) { afterCreation(bench, history); });
  }
  for (const Prohibition& row : prohibitions) {
    addAttack(plan, row.name, row.function, {CKR_ACTION_PROHIBITED},
              [&](Bench& bench) { prohibited(bench, row); });
  }
}

}  // namespace kestrel::probe
