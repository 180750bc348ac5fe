// Templates that lack what is needed, or hold what cannot be.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/Keys.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"
#include "probe/errors/TemplateFaults.h"

namespace kestrel::probe {

namespace {

using Make = CK_RV (*)(Bench&, const Template&);

CK_OBJECT_HANDLE* handleRoom(Bench& bench) {
  return bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE, 2);
}

CK_OBJECT_HANDLE anyKey(Bench& bench) {
  return bench.keys.importSecret(bench.session, CKK_AES, "16 bytes of AES.", canCipher);
}

CK_RV generatePair(Bench& bench, CK_MECHANISM_TYPE type, const Template& publicKey) {
  Template privateKey(bench.memory);
  privateKey.add(CKA_TOKEN, false);
  CK_OBJECT_HANDLE* const keys = handleRoom(bench);
  return p11::C_GenerateKeyPair(bench.session, mechanismOf(bench, type), publicKey.in(),
                                publicKey.count(), privateKey.in(), privateKey.count(), keys,
                                keys + 1);
}

struct Maker {
  From from;
  FunctionId function;
  const char* of;  // where a function makes several things
  Make make;
};

constexpr Maker makers[] = {
    {From::creation, FunctionId::C_CreateObject, "",
     [](Bench& bench, const Template& attributes) {
       return p11::C_CreateObject(bench.session, attributes.in(), attributes.count(),
                                  handleRoom(bench));
     }},
    {From::generation, FunctionId::C_GenerateKey, "",
     [](Bench& bench, const Template& attributes) {
       return p11::C_GenerateKey(bench.session, mechanismOf(bench, CKM_AES_KEY_GEN),
                                 attributes.in(), attributes.count(), handleRoom(bench));
     }},
    {From::rsaPair, FunctionId::C_GenerateKeyPair, "RSA-",
     [](Bench& bench, const Template& attributes) {
       return generatePair(bench, CKM_RSA_PKCS_KEY_PAIR_GEN, attributes);
     }},
    {From::ecPair, FunctionId::C_GenerateKeyPair, "EC-",
     [](Bench& bench, const Template& attributes) {
       return generatePair(bench, CKM_EC_KEY_PAIR_GEN, attributes);
     }},
    {From::copy, FunctionId::C_CopyObject, "",
     [](Bench& bench, const Template& attributes) {
       return p11::C_CopyObject(bench.session, anyKey(bench), attributes.in(), attributes.count(),
                                handleRoom(bench));
     }},
    {From::change, FunctionId::C_SetAttributeValue, "",
     [](Bench& bench, const Template& attributes) {
       return p11::C_SetAttributeValue(bench.session, anyKey(bench), attributes.in(),
                                       attributes.count());
     }},
    {From::unwrapping, FunctionId::C_UnwrapKey, "",
     [](Bench& bench, const Template& attributes) {
       return Carrier::wrapping(bench).unwrap(bench, attributes);
     }},
    {From::derivation, FunctionId::C_DeriveKey, "",
     [](Bench& bench, const Template& attributes) {
       return Carrier::derivation(bench).derive(bench, attributes);
     }},
};

Template goodTemplate(Bench& bench, From from, CK_ATTRIBUTE_TYPE without) {
  Template attributes(bench.memory);
  for (const GoodAttribute& row : goodAttributes) {
    if (row.from == from && row.type != without) attributes.add(row.type, row.value);
  }
  return attributes;
}

void makeWith(Bench& bench, const Maker& maker, const TemplateFault& fault) {
  bench.control(maker.make(bench, goodTemplate(bench, maker.from, nothing)));
  Template attributes = goodTemplate(bench, maker.from, fault.without);
  if (fault.with != nothing) attributes.add(fault.with, fault.value);
  bench.expect(maker.make(bench, attributes));
}

void findUnknown(Bench& bench) {
  Template attributes(bench.memory);
  attributes.add(unknownAttribute, View("x"));
  bench.control(p11::C_FindObjectsInit(bench.session, nullptr, 0));
  bench.control(p11::C_FindObjectsFinal(bench.session));
  bench.expect(p11::C_FindObjectsInit(bench.session, attributes.in(), attributes.count()));
}

}  // namespace

void addTemplateErrors(Plan& plan) {
  for (const Maker& maker : makers) {
    for (const TemplateFault& fault : templateFaults) {
      if (fault.from != maker.from) continue;
      addError(plan, maker.function, fmt::format("{}{}", maker.of, fault.name), fault.expected,
               [&maker, &fault](Bench& bench) { makeWith(bench, maker, fault); });
    }
  }
  addError(plan, FunctionId::C_FindObjectsInit, "attribute-unknown",
           {CKR_OK, CKR_ATTRIBUTE_TYPE_INVALID}, findUnknown);
}

}  // namespace kestrel::probe
