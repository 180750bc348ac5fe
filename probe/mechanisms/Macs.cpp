// MACs: keyed digests, and those of ciphers.
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

enum class Mac { hmac, cmac, cbcMac, xcbc, poly1305 };

struct Row {
  CK_MECHANISM_TYPE type;
  Mac mac;
  const char* outside;  // OpenSSL's digest or cipher
  CK_KEY_TYPE keyType;
  CK_ULONG keyLength;
  CK_ULONG length = 0;   // that the mechanism cuts to by itself; 0 for the whole
  bool general = false;  // the length is a parameter
};

constexpr CK_ULONG generalLength = 8;

#define KESTREL_HMAC(type, outside, length)                                                        \
  {CKM_##type##_HMAC, Mac::hmac, outside, CKK_GENERIC_SECRET, length}, {                           \
    CKM_##type##_HMAC_GENERAL, Mac::hmac, outside, CKK_GENERIC_SECRET, length, generalLength, true \
  }

constexpr Row rows[] = {
    KESTREL_HMAC(MD5, "MD5", 16),
    KESTREL_HMAC(RIPEMD160, "RIPEMD160", 20),
    KESTREL_HMAC(SHA_1, "SHA1", 20),
    KESTREL_HMAC(SHA224, "SHA224", 28),
    KESTREL_HMAC(SHA256, "SHA256", 32),
    KESTREL_HMAC(SHA384, "SHA384", 48),
    KESTREL_HMAC(SHA512, "SHA512", 64),
    KESTREL_HMAC(SHA512_224, "SHA512-224", 28),
    KESTREL_HMAC(SHA512_256, "SHA512-256", 32),
    KESTREL_HMAC(SHA3_224, "SHA3-224", 28),
    KESTREL_HMAC(SHA3_256, "SHA3-256", 32),
    KESTREL_HMAC(SHA3_384, "SHA3-384", 48),
    KESTREL_HMAC(SHA3_512, "SHA3-512", 64),
    {CKM_AES_CMAC, Mac::cmac, "AES-128-CBC", CKK_AES, 16},
    {CKM_AES_CMAC_GENERAL, Mac::cmac, "AES-128-CBC", CKK_AES, 16, generalLength, true},
    {CKM_AES_MAC, Mac::cbcMac, "AES-128-CBC", CKK_AES, 16, 8},
    {CKM_AES_MAC_GENERAL, Mac::cbcMac, "AES-128-CBC", CKK_AES, 16, generalLength, true},
    {CKM_AES_XCBC_MAC, Mac::xcbc, nullptr, CKK_AES, 16},
    {CKM_AES_XCBC_MAC_96, Mac::xcbc, nullptr, CKK_AES, 16, 12},
    {CKM_DES3_CMAC, Mac::cmac, "DES-EDE3-CBC", CKK_DES3, 24},
    {CKM_DES3_CMAC_GENERAL, Mac::cmac, "DES-EDE3-CBC", CKK_DES3, 24, 4, true},
    {CKM_DES3_MAC, Mac::cbcMac, "DES-EDE3-CBC", CKK_DES3, 24, 4},
    {CKM_DES3_MAC_GENERAL, Mac::cbcMac, "DES-EDE3-CBC", CKK_DES3, 24, 4, true},
    {CKM_CAMELLIA_MAC, Mac::cbcMac, "CAMELLIA-128-CBC", CKK_CAMELLIA, 16, 8},
    {CKM_CAMELLIA_MAC_GENERAL, Mac::cbcMac, "CAMELLIA-128-CBC", CKK_CAMELLIA, 16, generalLength,
     true},
    {CKM_POLY1305, Mac::poly1305, nullptr, CKK_POLY1305, 32},
};

#undef KESTREL_HMAC

constexpr const char* differs = "the MAC is another than OpenSSL's";
constexpr Expected refusals{CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE};

Bytes expected(const Row& row, View key, View data) {
  Bytes mac;
  switch (row.mac) {
    case Mac::hmac:
      mac = outside::hmac(row.outside, key, data);
      break;
    case Mac::cmac:
      mac = outside::cmac(row.outside, key, data);
      break;
    case Mac::cbcMac:
      mac = outside::cbcMac(row.outside, key, data);
      break;
    case Mac::xcbc:
      mac = outside::xcbcMac(key, data);
      break;
    case Mac::poly1305:
      mac = outside::poly1305(key, data);
      break;
  }
  if (row.length != 0) mac.resize(row.length);
  return mac;
}

struct Made {
  const SecretKey& key;
  Kit kit;
};

Made make(Bench& bench, const Row& row, Kind kind) {
  const SecretKey& key = bench.keys.secret(row.keyType, row.keyLength, canMac);
  const CK_ULONG length = row.length;
  return {key, operation(bench, kind, row.type, row.general ? viewOf(length) : View(), key.handle)};
}

void sign(Bench& bench, const Row& row, std::size_t size, bool inParts) {
  const Made made = make(bench, row, Kind::sign);
  const Bytes data = message(size);
  const Bytes mac = inParts ? inPieces(bench, made.kit, data) : inOne(bench, made.kit, data);
  bench.require(mac == expected(row, made.key.value, data), differs);
}

void verify(Bench& bench, const Row& row, bool inParts) {
  const Made made = make(bench, row, Kind::verify);
  const Bytes data = message(500);
  bench.work(confirm(bench, made.kit, data, expected(row, made.key.value, data), inParts),
             "a MAC that OpenSSL has made");
}

void verifyChanged(Bench& bench, const Row& row) {
  const Made made = make(bench, row, Kind::verify);
  const Bytes data = message(500), mac = expected(row, made.key.value, data);
  bench.control(confirm(bench, made.kit, data, mac));
  for (const std::size_t at : {std::size_t{0}, mac.size() / 2, mac.size() - 1}) {
    bench.refused(confirm(bench, made.kit, data, changed(mac, at)), refusals,
                  "a MAC with one bit changed is taken for right");
  }
  bench.refused(confirm(bench, made.kit, changed(data, 250), mac), refusals,
                "the MAC of other data is taken for right");
}

}  // namespace

void addMacs(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    checks.add(CKF_SIGN, "sign/single", "C_Sign",
               [&row](Bench& bench) { sign(bench, row, 500, false); });
    checks.add(CKF_SIGN, "sign/parts", "C_SignUpdate",
               [&row](Bench& bench) { sign(bench, row, 1003, true); });
    checks.add(CKF_VERIFY, "verify/single", "C_Verify",
               [&row](Bench& bench) { verify(bench, row, false); });
    checks.add(CKF_VERIFY, "verify/parts", "C_VerifyUpdate",
               [&row](Bench& bench) { verify(bench, row, true); });
    checks.add(CKF_VERIFY, "verify/changed", "C_Verify",
               [&row](Bench& bench) { verifyChanged(bench, row); });
  }
}

}  // namespace kestrel::probe
