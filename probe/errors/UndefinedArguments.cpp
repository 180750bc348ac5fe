// Arguments that the standard leaves undefined: a null where there is a length, and lengths that no
// room has. A module that refuses them is kind to its callers; one that crashes is none the less
// worth knowing.
#include <limits>

#include "probe/Templates.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG some = 16;
constexpr CK_ULONG endless = std::numeric_limits<CK_ULONG>::max();

struct Row {
  FunctionId function;
  const char* name;
  void (*run)(Bench&);
};

// The rest of an operation with nothing where its data should be.
template <Kind kind>
void nullData(Bench& bench) {
  const Kit kit = kitFor(bench, kind);
  bench.control(kit.begin(bench.session));
  auto* const length = bench.memory.out<CK_ULONG>(1024);
  CK_BYTE* const output = bench.memory.bytes(1024);
  if constexpr (kind == Kind::digest) {
    bench.expect(p11::C_Digest(bench.session, nullptr, some, output, length));
  } else if constexpr (kind == Kind::sign) {
    bench.expect(p11::C_Sign(bench.session, nullptr, some, output, length));
  } else if constexpr (kind == Kind::encrypt) {
    bench.expect(p11::C_Encrypt(bench.session, nullptr, some, output, length));
  } else if constexpr (kind == Kind::decrypt) {
    bench.expect(p11::C_Decrypt(bench.session, nullptr, some, output, length));
  } else {
    bench.expect(p11::C_Verify(bench.session, nullptr, some, bench.memory.in(View(kit.given)),
                               kit.given.size()));
  }
}

template <Kind kind>
void nullPart(Bench& bench) {
  const Kit kit = kitInParts(bench, kind);
  bench.control(kit.begin(bench.session));
  auto* const length = bench.memory.out<CK_ULONG>(1024);
  CK_BYTE* const output = bench.memory.bytes(1024);
  if constexpr (kind == Kind::digest) {
    bench.expect(p11::C_DigestUpdate(bench.session, nullptr, some));
  } else if constexpr (kind == Kind::sign) {
    bench.expect(p11::C_SignUpdate(bench.session, nullptr, some));
  } else if constexpr (kind == Kind::encrypt) {
    bench.expect(p11::C_EncryptUpdate(bench.session, nullptr, some, output, length));
  } else if constexpr (kind == Kind::decrypt) {
    bench.expect(p11::C_DecryptUpdate(bench.session, nullptr, some, output, length));
  } else {
    bench.expect(p11::C_VerifyUpdate(bench.session, nullptr, some));
  }
}

// A mechanism that is none. Version 3.0 gave it the meaning of ending what was begun.
template <Kind kind>
void nullMechanism(Bench& bench) {
  if (bench.token.version.major >= 3) bench.notApplicable("it ends an operation since 3.0");
  Kit kit = kitFor(bench, kind);
  kit.mechanism = nullptr;
  bench.expect(kit.begin(bench.session));
}

CK_ATTRIBUTE* nullValue(Bench& bench) {
  return bench.memory.in(CK_ATTRIBUTE{CKA_LABEL, nullptr, some});
}

constexpr Row rows[] = {
    {FunctionId::C_GetInfo, "null", [](Bench& bench) { bench.expect(p11::C_GetInfo(nullptr)); }},
    {FunctionId::C_GetSlotList, "null-count",
     [](Bench& bench) { bench.expect(p11::C_GetSlotList(CK_TRUE, nullptr, nullptr)); }},
    {FunctionId::C_GetSlotInfo, "null",
     [](Bench& bench) { bench.expect(p11::C_GetSlotInfo(bench.token.slot, nullptr)); }},
    {FunctionId::C_GetTokenInfo, "null",
     [](Bench& bench) { bench.expect(p11::C_GetTokenInfo(bench.token.slot, nullptr)); }},
    {FunctionId::C_GetMechanismList, "null-count",
     [](Bench& bench) {
       bench.expect(p11::C_GetMechanismList(bench.token.slot, nullptr, nullptr));
     }},
    {FunctionId::C_GetMechanismInfo, "null",
     [](Bench& bench) {
       bench.expect(p11::C_GetMechanismInfo(bench.token.slot, CKM_SHA256, nullptr));
     }},
    {FunctionId::C_OpenSession, "null-handle",
     [](Bench& bench) {
       bench.expect(
           p11::C_OpenSession(bench.token.slot, CKF_SERIAL_SESSION, nullptr, nullptr, nullptr));
     }},
    {FunctionId::C_GetSessionInfo, "null",
     [](Bench& bench) { bench.expect(p11::C_GetSessionInfo(bench.session, nullptr)); }},
    {FunctionId::C_CreateObject, "null-template",
     [](Bench& bench) {
       bench.expect(
           p11::C_CreateObject(bench.session, nullptr, 1, bench.memory.out<CK_OBJECT_HANDLE>(0)));
     }},
    {FunctionId::C_CreateObject, "null-value",
     [](Bench& bench) {
       bench.expect(p11::C_CreateObject(bench.session, nullValue(bench), 1,
                                        bench.memory.out<CK_OBJECT_HANDLE>(0)));
     }},
    {FunctionId::C_FindObjectsInit, "null-template",
     [](Bench& bench) { bench.expect(p11::C_FindObjectsInit(bench.session, nullptr, 1)); }},
    {FunctionId::C_FindObjectsInit, "null-value",
     [](Bench& bench) {
       bench.expect(p11::C_FindObjectsInit(bench.session, nullValue(bench), 1));
     }},
    {FunctionId::C_FindObjects, "null-objects",
     [](Bench& bench) {
       bench.control(p11::C_FindObjectsInit(bench.session, nullptr, 0));
       bench.expect(p11::C_FindObjects(bench.session, nullptr, 1, bench.memory.out<CK_ULONG>(0)));
     }},
    {FunctionId::C_SeedRandom, "null",
     [](Bench& bench) { bench.expect(p11::C_SeedRandom(bench.session, nullptr, some)); }},
    {FunctionId::C_GenerateRandom, "null",
     [](Bench& bench) { bench.expect(p11::C_GenerateRandom(bench.session, nullptr, some)); }},
    {FunctionId::C_DigestInit, "null-mechanism", nullMechanism<Kind::digest>},
    {FunctionId::C_SignInit, "null-mechanism", nullMechanism<Kind::sign>},
    {FunctionId::C_VerifyInit, "null-mechanism", nullMechanism<Kind::verify>},
    {FunctionId::C_EncryptInit, "null-mechanism", nullMechanism<Kind::encrypt>},
    {FunctionId::C_DecryptInit, "null-mechanism", nullMechanism<Kind::decrypt>},
    {FunctionId::C_Digest, "null-data", nullData<Kind::digest>},
    {FunctionId::C_Sign, "null-data", nullData<Kind::sign>},
    {FunctionId::C_Verify, "null-data", nullData<Kind::verify>},
    {FunctionId::C_Encrypt, "null-data", nullData<Kind::encrypt>},
    {FunctionId::C_Decrypt, "null-data", nullData<Kind::decrypt>},
    {FunctionId::C_DigestUpdate, "null-part", nullPart<Kind::digest>},
    {FunctionId::C_SignUpdate, "null-part", nullPart<Kind::sign>},
    {FunctionId::C_VerifyUpdate, "null-part", nullPart<Kind::verify>},
    {FunctionId::C_EncryptUpdate, "null-part", nullPart<Kind::encrypt>},
    {FunctionId::C_DecryptUpdate, "null-part", nullPart<Kind::decrypt>},
    {FunctionId::C_Digest, "null-length",
     [](Bench& bench) {
       const Kit kit = kitFor(bench, Kind::digest);
       bench.control(kit.begin(bench.session));
       bench.expect(kit.single(bench.session, bench.memory.bytes(64), nullptr));
     }},
    {FunctionId::C_Digest, "endless-data",
     [](Bench& bench) {
       const Kit kit = kitFor(bench, Kind::digest);
       bench.control(kit.begin(bench.session));
       bench.expect(p11::C_Digest(bench.session, bench.memory.bytes(some), endless,
                                  bench.memory.bytes(64), bench.memory.out<CK_ULONG>(64)));
     }},
    {FunctionId::C_GenerateKey, "null-template",
     [](Bench& bench) {
       bench.expect(p11::C_GenerateKey(bench.session, mechanismOf(bench, CKM_AES_KEY_GEN), nullptr,
                                       1, bench.memory.out<CK_OBJECT_HANDLE>(0)));
     }},
};

}  // namespace

void addUndefinedArguments(Plan& plan) {
  for (const Row& row : rows) {
    addError(plan, row.function, row.name, {CKR_ARGUMENTS_BAD}, row.run).undefined = true;
  }
}

}  // namespace kestrel::probe
