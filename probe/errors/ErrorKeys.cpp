#include "probe/errors/ErrorKeys.h"

#include <array>

#include "probe/KeyAttributes.h"
#include "probe/OutsidePublic.h"

namespace kestrel::probe {

namespace {

enum class Numbers { value, ofRsa, ofEc };

struct Row {
  const char* name;
  CK_ULONG objectClass;
  CK_KEY_TYPE type;
  Numbers numbers;
};

// In the order of KeyKind.
constexpr std::array rows{
    Row{"AES-key", CKO_SECRET_KEY, CKK_AES, Numbers::value},
    Row{"generic-key", CKO_SECRET_KEY, CKK_GENERIC_SECRET, Numbers::value},
    Row{"public-RSA-key", CKO_PUBLIC_KEY, CKK_RSA, Numbers::ofRsa},
    Row{"private-RSA-key", CKO_PRIVATE_KEY, CKK_RSA, Numbers::ofRsa},
    Row{"public-EC-key", CKO_PUBLIC_KEY, CKK_EC, Numbers::ofEc},
    Row{"private-EC-key", CKO_PRIVATE_KEY, CKK_EC, Numbers::ofEc},
};

constexpr const Row& rowOf(KeyKind kind) {
  return rows[static_cast<std::size_t>(kind)];
}

constexpr View value = "16 or 32 bytes, of no secrets at";
static_assert(value.size() == 32);

void addNumbers(Bench& bench, Template& attributes, const Row& row) {
  if (row.numbers == Numbers::value) {
    attributes.add(CKA_KEY_TYPE, row.type)
        .add(CKA_VALUE, row.type == CKK_AES ? value.substr(0, 16) : value);
    return;
  }
  const OutsideKey curve = row.numbers == Numbers::ofEc ? outside::newEcKey("P-256") : nullptr;
  EVP_PKEY* const key = curve ? curve.get() : bench.keys.outsideRsa();
  (row.objectClass == CKO_PUBLIC_KEY ? addPublicNumbers : addPrivateNumbers)(attributes, key, 0);
}

}  // namespace

const char* nameOf(KeyKind kind) {
  return rowOf(kind).name;
}

CK_OBJECT_HANDLE makeKey(Bench& bench, KeyKind kind, CK_ATTRIBUTE_TYPE permission, bool permitted) {
  const Row& row = rowOf(kind);
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, row.objectClass).add(CKA_TOKEN, false).add(permission, permitted);
  if (row.objectClass != CKO_PUBLIC_KEY) {
    attributes.add(CKA_SENSITIVE, false).add(CKA_EXTRACTABLE, true);
  }
  addNumbers(bench, attributes, row);
  auto* const handle = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), handle));
  return *handle;
}

CK_ATTRIBUTE_TYPE permissionFor(Kind kind) {
  switch (kind) {
    case Kind::sign:
      return CKA_SIGN;
    case Kind::verify:
      return CKA_VERIFY;
    case Kind::encrypt:
      return CKA_ENCRYPT;
    case Kind::decrypt:
      return CKA_DECRYPT;
    case Kind::signRecover:
      return CKA_SIGN_RECOVER;
    default:
      return CKA_VERIFY_RECOVER;
  }
}

}  // namespace kestrel::probe
