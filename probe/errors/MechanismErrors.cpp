// Mechanisms that are not there or do something else, and parameters that are none.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/KeyAttributes.h"
#include "probe/Values.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"
#include "probe/errors/ErrorKeys.h"

namespace kestrel::probe {

namespace {

constexpr CK_MECHANISM_TYPE unknown = CKM_VENDOR_DEFINED | 0x0ffffff7;

void beginUnknown(Bench& bench, const KindRow& kind) {
  const Kit good = kitFor(bench, kind.kind);
  Kit kit = good;
  kit.mechanism = mechanismOf(bench, unknown);
  bench.expect(kit.begin(bench.session));
  requireWorks(bench, good);
}

// A digest does not encrypt, and what generates keys digests nothing.
void beginUnfit(Bench& bench, const KindRow& kind) {
  constexpr CK_MECHANISM_TYPE generations[] = {CKM_AES_KEY_GEN, CKM_RSA_PKCS_KEY_PAIR_GEN};
  constexpr CK_MECHANISM_TYPE digests[] = {CKM_SHA256, CKM_SHA_1};
  const Kit good = kitFor(bench, kind.kind);
  for (const CK_MECHANISM_TYPE type : kind.kind == Kind::digest ? generations : digests) {
    if (bench.token.find(type) == nullptr || bench.token.lists(type, kind.flag)) continue;
    Kit kit = good;
    kit.mechanism = mechanismOf(bench, type);
    bench.expect(kit.begin(bench.session));
    return requireWorks(bench, good);
  }
  bench.notApplicable("the token lists no mechanism of another function");
}

CK_RV generate(Bench& bench, CK_MECHANISM_TYPE type) {
  Template attributes = Carrier::result(bench);
  attributes.add(CKA_VALUE_LEN, CK_ULONG{16});
  return p11::C_GenerateKey(bench.session, mechanismOf(bench, type), attributes.in(),
                            attributes.count(), bench.memory.out<CK_OBJECT_HANDLE>(0));
}

CK_RV generatePair(Bench& bench, CK_MECHANISM_TYPE type) {
  Template publicKey(bench.memory), privateKey(bench.memory);
  publicKey.add(CKA_TOKEN, false);
  addGenerationAttributes(publicKey, CKK_RSA, 2048, {});
  privateKey.add(CKA_TOKEN, false);
  auto* const keys = bench.memory.out<CK_OBJECT_HANDLE>(0, 2);
  return p11::C_GenerateKeyPair(bench.session, mechanismOf(bench, type), publicKey.in(),
                                publicKey.count(), privateKey.in(), privateKey.count(), keys,
                                keys + 1);
}

CK_RV mechanismInfo(Bench& bench, CK_MECHANISM_TYPE type) {
  return p11::C_GetMechanismInfo(bench.token.slot, type, bench.memory.out(CK_MECHANISM_INFO{}));
}

struct Call {
  FunctionId function;
  void (*control)(Bench&);
  CK_RV (*call)(Bench&, CK_MECHANISM_TYPE);
};

constexpr Call calls[] = {
    {FunctionId::C_GetMechanismInfo,
     [](Bench& bench) {
       if (bench.token.mechanismCount == 0) bench.notApplicable("the token lists no mechanism");
       bench.control(mechanismInfo(bench, bench.token.mechanisms[0].type));
     },
     mechanismInfo},
    {FunctionId::C_GenerateKey,
     [](Bench& bench) { bench.control(generate(bench, CKM_AES_KEY_GEN)); }, generate},
    {FunctionId::C_GenerateKeyPair,
     [](Bench& bench) { bench.control(generatePair(bench, CKM_RSA_PKCS_KEY_PAIR_GEN)); },
     generatePair},
    {FunctionId::C_WrapKey, [](Bench&) {},
     [](Bench& bench, CK_MECHANISM_TYPE type) {
       Carrier carrier = Carrier::wrapping(bench);
       carrier.mechanism = mechanismOf(bench, type);
       return carrier.wrap(bench);
     }},
    {FunctionId::C_UnwrapKey, [](Bench&) {},
     [](Bench& bench, CK_MECHANISM_TYPE type) {
       Carrier carrier = Carrier::wrapping(bench);
       carrier.mechanism = mechanismOf(bench, type);
       return carrier.unwrap(bench, Carrier::result(bench));
     }},
    {FunctionId::C_DeriveKey, [](Bench&) {},
     [](Bench& bench, CK_MECHANISM_TYPE type) {
       Carrier carrier = Carrier::derivation(bench);
       carrier.mechanism = mechanismOf(bench, type);
       return carrier.derive(bench, Carrier::result(bench));
     }},
};

// --- parameters ---

constexpr View vector = "0123456789abcdef";

Bytes cut(View parameter) {
  return Bytes(parameter.substr(0, parameter.size() - 1));
}

Bytes ctr(CK_ULONG bits) {
  CK_AES_CTR_PARAMS params{bits, {}};
  return Bytes(viewOf(params));
}

Bytes gcm(Bench& bench, CK_ULONG vectorLength, CK_ULONG tagBits) {
  const CK_GCM_PARAMS params{
      bench.memory.in(vector), vectorLength, vectorLength * 8, nullptr, 0, tagBits};
  return Bytes(viewOf(params));
}

Bytes pss(CK_MECHANISM_TYPE hash, CK_ULONG mask, CK_ULONG salt) {
  const CK_RSA_PKCS_PSS_PARAMS params{hash, mask, salt};
  return Bytes(viewOf(params));
}

Bytes oaep(CK_MECHANISM_TYPE hash, CK_ULONG mask) {
  const CK_RSA_PKCS_OAEP_PARAMS params{hash, mask, CKZ_DATA_SPECIFIED, nullptr, 0};
  return Bytes(viewOf(params));
}

Bytes length(CK_ULONG value) {
  return Bytes(viewOf(value));
}

// The first row of a mechanism is the one that is in order.
struct Parameter {
  CK_MECHANISM_TYPE type;
  KeyKind key;
  const char* name;
  Bytes (*make)(Bench&);
};

constexpr CK_ULONG noMask = 0x7ffffff7;
constexpr CK_ULONG mask = CKG_MGF1_SHA256;

constexpr Parameter ciphers[] = {
    {CKM_AES_CBC, KeyKind::aes, nullptr, [](Bench&) { return Bytes(vector); }},
    {CKM_AES_CBC, KeyKind::aes, "missing", [](Bench&) { return Bytes(); }},
    {CKM_AES_CBC, KeyKind::aes, "one-short", [](Bench&) { return cut(vector); }},
    {CKM_AES_CBC, KeyKind::aes, "one-long", [](Bench&) { return Bytes(vector) + "+"; }},
    {CKM_AES_CBC_PAD, KeyKind::aes, nullptr, [](Bench&) { return Bytes(vector); }},
    {CKM_AES_CBC_PAD, KeyKind::aes, "missing", [](Bench&) { return Bytes(); }},
    {CKM_AES_CBC_PAD, KeyKind::aes, "one-short", [](Bench&) { return cut(vector); }},
    {CKM_AES_CBC_PAD, KeyKind::aes, "one-long", [](Bench&) { return Bytes(vector) + "+"; }},
    {CKM_AES_CTR, KeyKind::aes, nullptr, [](Bench&) { return ctr(128); }},
    {CKM_AES_CTR, KeyKind::aes, "missing", [](Bench&) { return Bytes(); }},
    {CKM_AES_CTR, KeyKind::aes, "one-short", [](Bench&) { return cut(ctr(128)); }},
    {CKM_AES_CTR, KeyKind::aes, "counter-of-0-bits", [](Bench&) { return ctr(0); }},
    {CKM_AES_CTR, KeyKind::aes, "counter-of-129-bits", [](Bench&) { return ctr(129); }},
    {CKM_AES_GCM, KeyKind::aes, nullptr, [](Bench& bench) { return gcm(bench, 12, 128); }},
    {CKM_AES_GCM, KeyKind::aes, "missing", [](Bench&) { return Bytes(); }},
    {CKM_AES_GCM, KeyKind::aes, "one-short", [](Bench& bench) { return cut(gcm(bench, 12, 128)); }},
    {CKM_AES_GCM, KeyKind::aes, "tag-of-129-bits",
     [](Bench& bench) { return gcm(bench, 12, 129); }},
    {CKM_AES_GCM, KeyKind::aes, "tag-of-256-bits",
     [](Bench& bench) { return gcm(bench, 12, 256); }},
    {CKM_RSA_PKCS_OAEP, KeyKind::rsaPublic, nullptr,
     [](Bench&) { return oaep(CKM_SHA_1, CKG_MGF1_SHA1); }},
    {CKM_RSA_PKCS_OAEP, KeyKind::rsaPublic, "missing", [](Bench&) { return Bytes(); }},
    {CKM_RSA_PKCS_OAEP, KeyKind::rsaPublic, "one-short",
     [](Bench&) { return cut(oaep(CKM_SHA_1, CKG_MGF1_SHA1)); }},
    {CKM_RSA_PKCS_OAEP, KeyKind::rsaPublic, "unknown-digest",
     [](Bench&) { return oaep(unknown, CKG_MGF1_SHA1); }},
    {CKM_RSA_PKCS_OAEP, KeyKind::rsaPublic, "unknown-mask",
     [](Bench&) { return oaep(CKM_SHA_1, noMask); }},
};

constexpr Parameter signatures[] = {
    {CKM_RSA_PKCS_PSS, KeyKind::rsaPrivate, nullptr,
     [](Bench&) { return pss(CKM_SHA256, mask, 32); }},
    {CKM_RSA_PKCS_PSS, KeyKind::rsaPrivate, "missing", [](Bench&) { return Bytes(); }},
    {CKM_RSA_PKCS_PSS, KeyKind::rsaPrivate, "one-short",
     [](Bench&) { return cut(pss(CKM_SHA256, mask, 32)); }},
    {CKM_RSA_PKCS_PSS, KeyKind::rsaPrivate, "unknown-digest",
     [](Bench&) { return pss(unknown, mask, 32); }},
    {CKM_RSA_PKCS_PSS, KeyKind::rsaPrivate, "unknown-mask",
     [](Bench&) { return pss(CKM_SHA256, noMask, 32); }},
    {CKM_SHA256_RSA_PKCS_PSS, KeyKind::rsaPrivate, nullptr,
     [](Bench&) { return pss(CKM_SHA256, mask, 32); }},
    {CKM_SHA256_RSA_PKCS_PSS, KeyKind::rsaPrivate, "missing", [](Bench&) { return Bytes(); }},
    {CKM_SHA256_RSA_PKCS_PSS, KeyKind::rsaPrivate, "one-short",
     [](Bench&) { return cut(pss(CKM_SHA256, mask, 32)); }},
    {CKM_SHA256_RSA_PKCS_PSS, KeyKind::rsaPrivate, "another-digest",
     [](Bench&) { return pss(CKM_SHA_1, CKG_MGF1_SHA1, 20); }},
    {CKM_SHA256_HMAC_GENERAL, KeyKind::generic, nullptr, [](Bench&) { return length(16); }},
    {CKM_SHA256_HMAC_GENERAL, KeyKind::generic, "missing", [](Bench&) { return Bytes(); }},
    {CKM_SHA256_HMAC_GENERAL, KeyKind::generic, "one-short",
     [](Bench&) { return cut(length(16)); }},
    {CKM_SHA256_HMAC_GENERAL, KeyKind::generic, "of-33-bytes", [](Bench&) { return length(33); }},
};

void badParameter(Bench& bench, Kind kind, const Parameter& good, const Parameter& bad) {
  const CK_OBJECT_HANDLE key = makeKey(bench, good.key, permissionFor(kind), true);
  bench.control(
      operation(bench, kind, good.type, good.make(bench), key).begin(bench.openSession()));
  bench.expect(operation(bench, kind, bad.type, bad.make(bench), key).begin(bench.session));
  const CK_RV result =
      operation(bench, kind, good.type, good.make(bench), key).begin(bench.session);
  bench.require(result == CKR_OK, "after it an operation with a right parameter does not begin");
}

void addParameters(Plan& plan, Kind kind, std::span<const Parameter> rows) {
  const Parameter* good = nullptr;
  for (const Parameter& row : rows) {
    if (row.name == nullptr) good = &row;
    if (row.name == nullptr) continue;
    addError(plan, rowOf(kind).init,
             fmt::format("parameter-{}/{}", row.name, valueText("CKM_", row.type)),
             {CKR_MECHANISM_PARAM_INVALID, CKR_ARGUMENTS_BAD},
             [kind, good, &row](Bench& bench) { badParameter(bench, kind, *good, row); })
        .mechanism = NeededMechanism{row.type, rowOf(kind).flag};
  }
}

}  // namespace

void addMechanismErrors(Plan& plan) {
  for (const KindRow& kind : kindRows) {
    addError(plan, kind.init, "mechanism-unknown", {CKR_MECHANISM_INVALID},
             [&kind](Bench& bench) { beginUnknown(bench, kind); });
    addError(plan, kind.init, "mechanism-of-another-function",
             {CKR_MECHANISM_INVALID, CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED},
             [&kind](Bench& bench) { beginUnfit(bench, kind); });
  }
  for (const Call& row : calls) {
    addError(plan, row.function, "mechanism-unknown", {CKR_MECHANISM_INVALID},
             [&row](Bench& bench) {
               row.control(bench);
               bench.expect(row.call(bench, unknown));
             });
  }
  addParameters(plan, Kind::encrypt, ciphers);
  addParameters(plan, Kind::sign, signatures);
}

}  // namespace kestrel::probe
