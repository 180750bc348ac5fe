// Digests.
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

struct Row {
  CK_MECHANISM_TYPE type;
  const char* outside;
};

constexpr Row rows[] = {
    {CKM_MD5, "MD5"},           {CKM_RIPEMD160, "RIPEMD160"},     {CKM_SHA_1, "SHA1"},
    {CKM_SHA224, "SHA224"},     {CKM_SHA256, "SHA256"},           {CKM_SHA384, "SHA384"},
    {CKM_SHA512, "SHA512"},     {CKM_SHA512_224, "SHA512-224"},   {CKM_SHA512_256, "SHA512-256"},
    {CKM_SHA3_224, "SHA3-224"}, {CKM_SHA3_256, "SHA3-256"},       {CKM_SHA3_384, "SHA3-384"},
    {CKM_SHA3_512, "SHA3-512"}, {CKM_BLAKE2B_512, "BLAKE2B-512"},
};

constexpr const char* differs = "the digest is another than OpenSSL's";

void single(Bench& bench, const Row& row, std::size_t length) {
  const Bytes data = message(length);
  const Kit kit = operation(bench, Kind::digest, row.type, {});
  bench.require(inOne(bench, kit, data) == outside::digest(row.outside, data), differs);
}

void parts(Bench& bench, const Row& row) {
  const Bytes data = message(1003);
  const Kit kit = operation(bench, Kind::digest, row.type, {});
  bench.require(inPieces(bench, kit, data) == outside::digest(row.outside, data), differs);
}

// A key's value goes into a digest as data does.
void ofKey(Bench& bench, const Row& row) {
  constexpr CK_ULONG room = 64;
  const SecretKey& key = bench.keys.secret(CKK_GENERIC_SECRET, 32, canMac);
  const Kit kit = operation(bench, Kind::digest, row.type, {});
  bench.work(kit.begin(bench.session));
  bench.control(kit.updateWith(bench.session, "before", nullptr, nullptr));
  bench.control(p11::C_DigestKey(bench.session, key.handle));
  auto* const length = bench.memory.out<CK_ULONG>(room);
  CK_BYTE* const output = bench.memory.bytes(room);
  bench.work(kit.finish(bench.session, output, length));
  bench.require(View(reinterpret_cast<const char*>(output), *length) ==
                    outside::digest(row.outside, "before" + key.value),
                differs);
}

}  // namespace

void addDigests(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    checks.add(CKF_DIGEST, "digest/single", "C_Digest",
               [&row](Bench& bench) { single(bench, row, 1003); });
    checks.add(CKF_DIGEST, "digest/empty", "C_Digest",
               [&row](Bench& bench) { single(bench, row, 0); });
    checks.add(CKF_DIGEST, "digest/parts", "C_DigestUpdate",
               [&row](Bench& bench) { parts(bench, row); });
    checks.add(CKF_DIGEST, "digest/key", "C_DigestKey",
               [&row](Bench& bench) { ofKey(bench, row); });
  }
}

}  // namespace kestrel::probe
