// Objects and keys that are not there.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/Keys.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"

namespace kestrel::probe {

namespace {

CK_OBJECT_HANDLE newObject(Bench& bench) {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_DATA})
      .add(CKA_TOKEN, false)
      .add(CKA_PRIVATE, false)
      .add(CKA_LABEL, ownLabel)
      .add(CKA_VALUE, View("of no meaning"));
  auto* const handle = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), handle));
  return *handle;
}

struct BadHandle {
  const char* name;
  CK_OBJECT_HANDLE (*make)(Bench&);
};

constexpr BadHandle badHandles[] = {
    {"0", [](Bench&) { return CK_OBJECT_HANDLE{CK_INVALID_HANDLE}; }},
    {"never-given", [](Bench&) { return CK_OBJECT_HANDLE{0x5a5a5a5a}; }},
    {"destroyed",
     [](Bench& bench) {
       const CK_OBJECT_HANDLE object = newObject(bench);
       bench.control(p11::C_DestroyObject(bench.session, object));
       return object;
     }},
};

// --- objects ---

struct ObjectCall {
  FunctionId function;
  CK_RV (*call)(Bench&, CK_OBJECT_HANDLE);
};

constexpr ObjectCall objectCalls[] = {
    {FunctionId::C_GetObjectSize,
     [](Bench& bench, CK_OBJECT_HANDLE object) {
       return p11::C_GetObjectSize(bench.session, object, bench.memory.out<CK_ULONG>(0));
     }},
    {FunctionId::C_GetAttributeValue,
     [](Bench& bench, CK_OBJECT_HANDLE object) {
       auto* const wanted = bench.memory.out(CK_ATTRIBUTE{CKA_LABEL, bench.memory.bytes(100), 100});
       return p11::C_GetAttributeValue(bench.session, object, wanted, 1);
     }},
    {FunctionId::C_SetAttributeValue,
     [](Bench& bench, CK_OBJECT_HANDLE object) {
       Template attributes(bench.memory);
       attributes.add(CKA_LABEL, View("another label"));
       return p11::C_SetAttributeValue(bench.session, object, attributes.in(), 1);
     }},
    {FunctionId::C_CopyObject,
     [](Bench& bench, CK_OBJECT_HANDLE object) {
       Template attributes(bench.memory);
       attributes.add(CKA_TOKEN, false);
       return p11::C_CopyObject(bench.session, object, attributes.in(), 1,
                                bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
     }},
    {FunctionId::C_DestroyObject,
     [](Bench& bench, CK_OBJECT_HANDLE object) {
       return p11::C_DestroyObject(bench.session, object);
     }},
};

void addObjects(Plan& plan) {
  for (const ObjectCall& row : objectCalls) {
    for (const BadHandle& bad : badHandles) {
      addError(plan, row.function, fmt::format("object-{}", bad.name), {CKR_OBJECT_HANDLE_INVALID},
               [&row, &bad](Bench& bench) {
                 bench.control(row.call(bench, newObject(bench)));
                 bench.expect(row.call(bench, bad.make(bench)));
               });
    }
  }
}

// --- keys ---

void beginWith(Bench& bench, const KindRow& kind, const BadHandle& bad) {
  const Kit good = kitFor(bench, kind.kind);
  Kit kit = good;
  kit.key = bad.make(bench);
  bench.expect(kit.begin(bench.session));
  requireWorks(bench, good);
}

void digestKey(Bench& bench, const BadHandle& bad) {
  const CK_OBJECT_HANDLE key =
      bench.keys.importSecret(bench.session, CKK_GENERIC_SECRET, "a key to digest.", canMac);
  const Kit kit = kitInParts(bench, Kind::digest);
  bench.control(kit.begin(bench.session));
  bench.control(p11::C_DigestKey(bench.session, key));
  const CK_OBJECT_HANDLE missing = bad.make(bench);
  bench.expect(p11::C_DigestKey(bench.session, missing));
}

void wrapKey(Bench& bench, const BadHandle& bad) {
  Carrier carrier = Carrier::wrapping(bench);
  carrier.key = bad.make(bench);
  bench.expect(carrier.wrap(bench));
}

void wrapWith(Bench& bench, const BadHandle& bad) {
  Carrier carrier = Carrier::wrapping(bench);
  carrier.base = bad.make(bench);
  bench.expect(carrier.wrap(bench));
}

void unwrapWith(Bench& bench, const BadHandle& bad) {
  Carrier carrier = Carrier::wrapping(bench);
  carrier.base = bad.make(bench);
  bench.expect(carrier.unwrap(bench, Carrier::result(bench)));
}

void deriveFrom(Bench& bench, const BadHandle& bad) {
  Carrier carrier = Carrier::derivation(bench);
  carrier.base = bad.make(bench);
  bench.expect(carrier.derive(bench, Carrier::result(bench)));
}

struct KeyCall {
  FunctionId function;
  const char* name;
  Expected expected;
  void (*run)(Bench&, const BadHandle&);
};

constexpr KeyCall keyCalls[] = {
    {FunctionId::C_DigestKey, "key", {CKR_KEY_HANDLE_INVALID}, digestKey},
    {FunctionId::C_WrapKey, "key", {CKR_KEY_HANDLE_INVALID}, wrapKey},
    {FunctionId::C_WrapKey, "wrapping-key", {CKR_WRAPPING_KEY_HANDLE_INVALID}, wrapWith},
    {FunctionId::C_UnwrapKey, "unwrapping-key", {CKR_UNWRAPPING_KEY_HANDLE_INVALID}, unwrapWith},
    {FunctionId::C_DeriveKey, "key", {CKR_KEY_HANDLE_INVALID}, deriveFrom},
};

void addKeys(Plan& plan) {
  for (const BadHandle& bad : badHandles) {
    for (const KindRow& kind : kindRows) {
      if (kind.kind == Kind::digest) continue;
      addError(plan, kind.init, fmt::format("key-{}", bad.name), {CKR_KEY_HANDLE_INVALID},
               [&kind, &bad](Bench& bench) { beginWith(bench, kind, bad); });
    }
    for (const KeyCall& row : keyCalls) {
      addError(plan, row.function, fmt::format("{}-{}", row.name, bad.name), row.expected,
               [&row, &bad](Bench& bench) { row.run(bench, bad); });
    }
  }
}

}  // namespace

void addHandleErrors(Plan& plan) {
  addObjects(plan);
  addKeys(plan);
}

}  // namespace kestrel::probe
