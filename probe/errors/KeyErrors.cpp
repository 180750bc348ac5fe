// Keys of a wrong type, and keys that may not do what they are asked to.
#include <fmt/format.h>

#include "probe/Carriers.h"
#include "probe/Values.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/ErrorCheck.h"
#include "probe/errors/ErrorKeys.h"

namespace kestrel::probe {

namespace {

constexpr View vector = "0123456789abcdef";

// A mechanism with the key that it wants.
struct Fitting {
  Kind kind;
  CK_MECHANISM_TYPE type;
  KeyKind key;
  View parameter = {};
};

constexpr Fitting fittings[] = {
    {Kind::sign, CKM_SHA256_HMAC, KeyKind::generic},
    {Kind::verify, CKM_SHA256_HMAC, KeyKind::generic},
    {Kind::sign, CKM_RSA_PKCS, KeyKind::rsaPrivate},
    {Kind::verify, CKM_RSA_PKCS, KeyKind::rsaPublic},
    {Kind::sign, CKM_SHA256_RSA_PKCS, KeyKind::rsaPrivate},
    {Kind::verify, CKM_SHA256_RSA_PKCS, KeyKind::rsaPublic},
    {Kind::sign, CKM_ECDSA, KeyKind::ecPrivate},
    {Kind::verify, CKM_ECDSA, KeyKind::ecPublic},
    {Kind::encrypt, CKM_AES_CBC_PAD, KeyKind::aes, vector},
    {Kind::decrypt, CKM_AES_CBC_PAD, KeyKind::aes, vector},
    {Kind::encrypt, CKM_RSA_PKCS, KeyKind::rsaPublic},
    {Kind::decrypt, CKM_RSA_PKCS, KeyKind::rsaPrivate},
    {Kind::signRecover, CKM_RSA_PKCS, KeyKind::rsaPrivate},
    {Kind::verifyRecover, CKM_RSA_PKCS, KeyKind::rsaPublic},
};

constexpr KeyKind keyKinds[] = {KeyKind::aes,        KeyKind::generic,  KeyKind::rsaPublic,
                                KeyKind::rsaPrivate, KeyKind::ecPublic, KeyKind::ecPrivate};

// A key is secret, public or private, and only its owner can do what the private one does.
constexpr bool isPublic(KeyKind kind) {
  return kind == KeyKind::rsaPublic || kind == KeyKind::ecPublic;
}

constexpr bool isSecret(KeyKind kind) {
  return kind == KeyKind::aes || kind == KeyKind::generic;
}

// Some tokens take any secret key for a MAC, which only makes them more useful.
constexpr bool isLenient(const Fitting& fitting, KeyKind key) {
  return isSecret(fitting.key) && isSecret(key) &&
         (fitting.kind == Kind::sign || fitting.kind == Kind::verify);
}

Kit operationWith(Bench& bench, const Fitting& fitting, CK_OBJECT_HANDLE key) {
  return operation(bench, fitting.kind, fitting.type, fitting.parameter, key);
}

CK_OBJECT_HANDLE keyThatMay(Bench& bench, KeyKind kind, Kind what) {
  return makeKey(bench, kind, permissionFor(what), true);
}

// What is begun cannot be begun again; a session of its own leaves the check's own as it was.
void requireBegins(Bench& bench, const Fitting& fitting) {
  const CK_OBJECT_HANDLE key = keyThatMay(bench, fitting.key, fitting.kind);
  bench.control(operationWith(bench, fitting, key).begin(bench.openSession()));
}

void wrongType(Bench& bench, const Fitting& fitting, KeyKind wrong) {
  requireBegins(bench, fitting);
  // A public key cannot be made with the permission of a private one, and has the one it may have.
  const bool sameSide = isPublic(wrong) == isPublic(fitting.key) || isSecret(wrong);
  const CK_OBJECT_HANDLE key =
      sameSide ? keyThatMay(bench, wrong, fitting.kind)
               : makeKey(bench, wrong, isPublic(wrong) ? CKA_VERIFY : CKA_SIGN, true);
  bench.expect(operationWith(bench, fitting, key).begin(bench.session));
  const CK_OBJECT_HANDLE right = keyThatMay(bench, fitting.key, fitting.kind);
  const CK_RV result = operationWith(bench, fitting, right).begin(bench.session);
  bench.require(result == CKR_OK, "after it an operation with the right key does not begin");
}

void notPermitted(Bench& bench, const Fitting& fitting) {
  requireBegins(bench, fitting);
  const CK_OBJECT_HANDLE key = makeKey(bench, fitting.key, permissionFor(fitting.kind), false);
  bench.expect(operationWith(bench, fitting, key).begin(bench.session));
}

// --- wrapping and deriving, for which the lists have no value that names it ---

using Use = CK_RV (*)(Bench&, const Carrier&);

struct CarrierRow {
  FunctionId function;
  CK_ATTRIBUTE_TYPE permission;
  Carrier (*find)(Bench&);
  Use use;
  Expected expected;
};

constexpr CarrierRow carrierRows[] = {
    {FunctionId::C_WrapKey,
     CKA_WRAP,
     Carrier::wrapping,
     [](Bench& bench, const Carrier& carrier) { return carrier.wrap(bench); },
     {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_WRAPPING_KEY_TYPE_INCONSISTENT, CKR_KEY_NOT_WRAPPABLE,
      CKR_WRAPPING_KEY_HANDLE_INVALID, CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_HANDLE_INVALID}},
    {FunctionId::C_UnwrapKey,
     CKA_UNWRAP,
     Carrier::wrapping,
     [](Bench& bench, const Carrier& carrier) {
       return carrier.unwrap(bench, Carrier::result(bench));
     },
     {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT,
      CKR_UNWRAPPING_KEY_HANDLE_INVALID, CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_HANDLE_INVALID}},
    {FunctionId::C_DeriveKey,
     CKA_DERIVE,
     Carrier::derivation,
     [](Bench& bench, const Carrier& carrier) {
       Template attributes = Carrier::result(bench);
       attributes.add(CKA_VALUE_LEN, CK_ULONG{16});
       return carrier.derive(bench, attributes);
     },
     {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_HANDLE_INVALID}},
};

void carrierNotPermitted(Bench& bench, const CarrierRow& row) {
  Carrier carrier = row.find(bench);
  carrier.base = makeKey(bench, KeyKind::aes, row.permission, true);
  if (row.function != FunctionId::C_UnwrapKey) bench.control(row.use(bench, carrier));
  carrier.base = makeKey(bench, KeyKind::aes, row.permission, false);
  bench.expect(row.use(bench, carrier));
}

}  // namespace

void addKeyErrors(Plan& plan) {
  for (const Fitting& fitting : fittings) {
    const FunctionId init = rowOf(fitting.kind).init;
    const std::string mechanism = valueText("CKM_", fitting.type);
    addError(plan, init, fmt::format("not-permitted/{}", mechanism),
             {CKR_KEY_FUNCTION_NOT_PERMITTED},
             [&fitting](Bench& bench) { notPermitted(bench, fitting); })
        .mechanism = NeededMechanism{fitting.type, rowOf(fitting.kind).flag};
    for (const KeyKind key : keyKinds) {
      if (key == fitting.key || isLenient(fitting, key)) continue;
      addError(plan, init, fmt::format("{}/{}", nameOf(key), mechanism),
               {CKR_KEY_TYPE_INCONSISTENT, CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_HANDLE_INVALID},
               [&fitting, key](Bench& bench) { wrongType(bench, fitting, key); })
          .mechanism = NeededMechanism{fitting.type, rowOf(fitting.kind).flag};
    }
  }
  for (const CarrierRow& row : carrierRows) {
    addError(plan, row.function, "not-permitted", row.expected,
             [&row](Bench& bench) { carrierNotPermitted(bench, row); });
  }
}

}  // namespace kestrel::probe
