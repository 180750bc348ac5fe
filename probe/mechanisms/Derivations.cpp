// Keys made of other keys and of data.
#include <fmt/format.h>

#include "probe/OutsideDerive.h"
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Derived.h"

namespace kestrel::probe {

namespace {

constexpr View data = "thirty-two bytes, two blocks AES";
static_assert(data.size() == 32);

CK_KEY_DERIVATION_STRING_DATA stringData(Bench& bench, View text) {
  return {bench.memory.in(text), text.size()};
}

Bytes exclusiveOr(View one, View other) {
  Bytes result(std::min(one.size(), other.size()), '\0');
  for (std::size_t i = 0; i < result.size(); ++i) result[i] = static_cast<char>(one[i] ^ other[i]);
  return result;
}

// What is made of a secret key of 32 bytes, and what it has to be.
struct Row {
  CK_MECHANISM_TYPE type;
  CK_KEY_TYPE base;
  CK_ULONG baseLength;
  CK_ULONG length;
  Bytes (*parameter)(Bench&);
  Bytes (*expected)(View base);
};

Bytes asStringData(Bench& bench) {
  return Bytes(viewOf(stringData(bench, data)));
}

Bytes asAesCbc(Bench& bench) {
  return Bytes(viewOf(CK_AES_CBC_ENCRYPT_DATA_PARAMS{{}, bench.memory.in(data), data.size()}));
}

Bytes asDesCbc(Bench& bench) {
  return Bytes(viewOf(CK_DES_CBC_ENCRYPT_DATA_PARAMS{{}, bench.memory.in(data), data.size()}));
}

Bytes nothing(Bench&) {
  return {};
}

Bytes firstBit(Bench&) {
  const CK_ULONG bit = 8;
  return Bytes(viewOf(bit));
}

Bytes hkdfParameter(Bench& bench) {
  HkdfParameters parameter{};
  parameter.extract = parameter.expand = CK_TRUE;
  parameter.hash = CKM_SHA256;
  parameter.saltType = CKF_HKDF_SALT_DATA;
  parameter.salt = bench.memory.in("a salt");
  parameter.saltLength = 6;
  parameter.info = bench.memory.in("some info");
  parameter.infoLength = 9;
  return Bytes(viewOf(parameter));
}

template <const char* const& name>
Bytes digestOf(View base) {
  return outside::digest(name, base);
}

constexpr const char *md5 = "MD5", *sha1 = "SHA1", *sha224 = "SHA224", *sha256 = "SHA256",
                     *sha384 = "SHA384", *sha512 = "SHA512";

Bytes encrypted(const char* cipher, View key, std::size_t vector) {
  return outside::encrypt({.name = cipher, .key = Bytes(key), .iv = Bytes(vector, '\0')}, data);
}

constexpr CK_KEY_TYPE generic = CKK_GENERIC_SECRET;

constexpr Row rows[] = {
    {CKM_CONCATENATE_BASE_AND_DATA, generic, 32, 64, asStringData,
     [](View base) { return Bytes(base).append(data); }},
    {CKM_CONCATENATE_DATA_AND_BASE, generic, 32, 64, asStringData,
     [](View base) { return Bytes(data).append(base); }},
    {CKM_XOR_BASE_AND_DATA, generic, 32, 32, asStringData,
     [](View base) { return exclusiveOr(base, data); }},
    {CKM_EXTRACT_KEY_FROM_KEY, generic, 32, 16, firstBit,
     [](View base) { return Bytes(base.substr(1, 16)); }},
    {CKM_AES_ECB_ENCRYPT_DATA, CKK_AES, 16, 32, asStringData,
     [](View base) { return encrypted("AES-128-ECB", base, 0); }},
    {CKM_AES_CBC_ENCRYPT_DATA, CKK_AES, 16, 32, asAesCbc,
     [](View base) { return encrypted("AES-128-CBC", base, 16); }},
    {CKM_DES_ECB_ENCRYPT_DATA, CKK_DES, 8, 32, asStringData,
     [](View base) { return encrypted("DES-ECB", base, 0); }},
    {CKM_DES_CBC_ENCRYPT_DATA, CKK_DES, 8, 32, asDesCbc,
     [](View base) { return encrypted("DES-CBC", base, 8); }},
    {CKM_DES3_ECB_ENCRYPT_DATA, CKK_DES3, 24, 32, asStringData,
     [](View base) { return encrypted("DES-EDE3-ECB", base, 0); }},
    {CKM_DES3_CBC_ENCRYPT_DATA, CKK_DES3, 24, 32, asDesCbc,
     [](View base) { return encrypted("DES-EDE3-CBC", base, 8); }},
    {CKM_CAMELLIA_ECB_ENCRYPT_DATA, CKK_CAMELLIA, 16, 32, asStringData,
     [](View base) { return encrypted("CAMELLIA-128-ECB", base, 0); }},
    {CKM_MD5_KEY_DERIVATION, generic, 32, 16, nothing, digestOf<md5>},
    {CKM_SHA1_KEY_DERIVATION, generic, 32, 20, nothing, digestOf<sha1>},
    {CKM_SHA224_KEY_DERIVATION, generic, 32, 28, nothing, digestOf<sha224>},
    {CKM_SHA256_KEY_DERIVATION, generic, 32, 32, nothing, digestOf<sha256>},
    {CKM_SHA384_KEY_DERIVATION, generic, 32, 48, nothing, digestOf<sha384>},
    {CKM_SHA512_KEY_DERIVATION, generic, 32, 64, nothing, digestOf<sha512>},
    {CKM_HKDF_DERIVE, generic, 32, 42, hkdfParameter,
     [](View base) {
       return outside::hkdf({"SHA256", true, true, "a salt", "some info"}, base, 42);
     }},
};

void derive(Bench& bench, const Row& row) {
  const SecretKey& base = bench.keys.secret(row.base, row.baseLength, canDerive);
  const Bytes parameter = row.parameter(bench);
  const Bytes found = derived(bench, row.type, parameter, base.handle, row.length);
  bench.require(found == row.expected(base.value), "the key is another than OpenSSL's");
}

// The other key is the parameter.
void concatenate(Bench& bench) {
  const SecretKey& base = bench.keys.secret(generic, 32, canDerive);
  const SecretKey& other = bench.keys.secret(generic, 16, canDerive);
  const Bytes found =
      derived(bench, CKM_CONCATENATE_BASE_AND_KEY, viewOf(other.handle), base.handle, 48);
  bench.require(found == base.value + other.value, "the key is not the one behind the other");
}

}  // namespace

Bytes derived(Bench& bench, CK_MECHANISM_TYPE type, View parameter, CK_OBJECT_HANDLE base,
              CK_ULONG length) {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, CK_ULONG{CKK_GENERIC_SECRET})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, false)
      .add(CKA_EXTRACTABLE, true)
      .add(CKA_VALUE_LEN, length);
  auto* const mechanism = bench.memory.in(CK_MECHANISM{
      type, parameter.empty() ? nullptr : bench.memory.in(parameter), parameter.size()});
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.work(
      p11::C_DeriveKey(bench.session, mechanism, base, attributes.in(), attributes.count(), key));
  const std::optional<Bytes> value = readAttribute(bench.session, *key, CKA_VALUE);
  if (!value) bench.notApplicable("the value of a key that is not sensitive is not to be had");
  return *value;
}

void addDerivations(Plan& plan) {
  for (const Row& row : rows) {
    Checks(plan, row.type).add(CKF_DERIVE, "derive", "C_DeriveKey", [&row](Bench& bench) {
      derive(bench, row);
    });
  }
  Checks(plan, CKM_CONCATENATE_BASE_AND_KEY).add(CKF_DERIVE, "derive", "C_DeriveKey", concatenate);
}

}  // namespace kestrel::probe
