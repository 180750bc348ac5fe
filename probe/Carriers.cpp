#include "probe/Carriers.h"

#include "probe/Keys.h"

namespace kestrel::probe {

namespace {

constexpr View vector = "0123456789abcdef";
constexpr View text = "one block of 16.";
constexpr CK_ULONG room = 1024;  // bytes of a wrapped key

struct WrapRow {
  CK_MECHANISM_TYPE type;
  View parameter = {};
};

constexpr WrapRow wraps[] = {
    {CKM_AES_KEY_WRAP}, {CKM_AES_KEY_WRAP_KWP}, {CKM_AES_CBC_PAD, vector},
    {CKM_AES_ECB},      {CKM_AES_CBC, vector},
};

constexpr CK_MECHANISM_TYPE derivations[] = {CKM_AES_ECB_ENCRYPT_DATA,
                                             CKM_CONCATENATE_BASE_AND_DATA, CKM_XOR_BASE_AND_DATA};

}  // namespace

Template Carrier::result(Bench& bench) {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, CK_ULONG{CKK_AES})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, false)
      .add(CKA_EXTRACTABLE, true);
  return attributes;
}

Carrier Carrier::wrapping(Bench& bench) {
  for (const WrapRow& row : wraps) {
    if (!bench.token.lists(row.type, CKF_WRAP | CKF_UNWRAP)) continue;
    Carrier carrier;
    carrier.mechanism = mechanismOf(bench, row.type, row.parameter);
    carrier.base = bench.keys.secret(CKK_AES, 16, canCarry).handle;
    carrier.key = bench.keys.importSecret(bench.session, CKK_AES, text, canCipher);
    auto* const length = bench.memory.out<CK_ULONG>(room);
    CK_BYTE* const output = bench.memory.bytes(room);
    bench.control(p11::C_WrapKey(bench.session, carrier.mechanism, carrier.base, carrier.key,
                                 output, length));
    carrier.wrapped.assign(reinterpret_cast<const char*>(output), *length);
    bench.control(carrier.unwrap(bench, result(bench)));
    return carrier;
  }
  bench.notApplicable("the token has no mechanism for it");
}

Carrier Carrier::derivation(Bench& bench) {
  for (const CK_MECHANISM_TYPE type : derivations) {
    if (!bench.token.lists(type, CKF_DERIVE)) continue;
    Carrier carrier;
    const CK_KEY_DERIVATION_STRING_DATA data{bench.memory.in(text), text.size()};
    carrier.mechanism = mechanismOf(bench, type, viewOf(data));
    carrier.base = bench.keys.secret(CKK_AES, 16, canDerive).handle;
    Template attributes = result(bench);
    attributes.add(CKA_VALUE_LEN, CK_ULONG{16});
    bench.control(carrier.derive(bench, attributes));
    return carrier;
  }
  bench.notApplicable("the token has no mechanism for it");
}

CK_RV Carrier::wrap(Bench& bench) const {
  return p11::C_WrapKey(bench.session, mechanism, base, key, bench.memory.bytes(room),
                        bench.memory.out<CK_ULONG>(room));
}

CK_RV Carrier::unwrap(Bench& bench, const Template& attributes) const {
  return p11::C_UnwrapKey(bench.session, mechanism, base, bench.memory.in(View(wrapped)),
                          wrapped.size(), attributes.in(), attributes.count(),
                          bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
}

CK_RV Carrier::derive(Bench& bench, const Template& attributes) const {
  return p11::C_DeriveKey(bench.session, mechanism, base, attributes.in(), attributes.count(),
                          bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
}

}  // namespace kestrel::probe
