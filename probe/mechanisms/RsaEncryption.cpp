// Encryption with RSA keys.
#include <fmt/format.h>

#include "probe/OutsidePublic.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

using Form = outside::RsaForm;

struct Row {
  CK_MECHANISM_TYPE type;
  const char* name;  // of the form, where a mechanism has several
  Form::Kind kind;
  const char* digest = nullptr;
  CK_MECHANISM_TYPE hash = 0;
  CK_RSA_PKCS_MGF_TYPE mask = 0;
  std::string_view label = {};
};

constexpr auto oaep = Form::Kind::oaep;

constexpr Row rows[] = {
    {CKM_RSA_PKCS, "", Form::Kind::pkcs1},
    {CKM_RSA_X_509, "", Form::Kind::raw},
    {CKM_RSA_PKCS_OAEP, "SHA-1", oaep, "SHA1", CKM_SHA_1, CKG_MGF1_SHA1},
    {CKM_RSA_PKCS_OAEP, "SHA-224", oaep, "SHA224", CKM_SHA224, CKG_MGF1_SHA224},
    {CKM_RSA_PKCS_OAEP, "SHA-256", oaep, "SHA256", CKM_SHA256, CKG_MGF1_SHA256},
    {CKM_RSA_PKCS_OAEP, "SHA-384", oaep, "SHA384", CKM_SHA384, CKG_MGF1_SHA384},
    {CKM_RSA_PKCS_OAEP, "SHA-512", oaep, "SHA512", CKM_SHA512, CKG_MGF1_SHA512},
    {CKM_RSA_PKCS_OAEP, "SHA-256-with-label", oaep, "SHA256", CKM_SHA256, CKG_MGF1_SHA256,
     "a label"},
};

Form formOf(const Row& row) {
  return {row.kind, row.digest, row.digest, row.label};
}

Bytes dataOf(const Row& row, EVP_PKEY* key) {
  Bytes data =
      message(row.kind == Form::Kind::raw ? static_cast<std::size_t>(EVP_PKEY_get_size(key)) : 32);
  if (row.kind == Form::Kind::raw) data[0] = '\0';
  return data;
}

Kit kitOf(Bench& bench, const Row& row, Kind kind, CK_OBJECT_HANDLE key) {
  CK_BYTE* const label = row.label.empty() ? nullptr : bench.memory.in(row.label);
  const CK_RSA_PKCS_OAEP_PARAMS parameter{row.hash, row.mask, CKZ_DATA_SPECIFIED, label,
                                          row.label.size()};
  return operation(bench, kind, row.type, row.kind == oaep ? viewOf(parameter) : View(), key);
}

void encrypt(Bench& bench, const Row& row) {
  EVP_PKEY* const key = bench.keys.outsideRsa();
  const CK_OBJECT_HANDLE publicKey = bench.keys.importPublic(bench.session, key, canEncrypt);
  const Bytes data = dataOf(row, key);
  const Bytes sealed = inOne(bench, kitOf(bench, row, Kind::encrypt, publicKey), data);
  Bytes opened;
  try {
    opened = outside::decrypt(key, formOf(row), sealed);
  } catch (const std::runtime_error&) {
    bench.wrong("OpenSSL cannot decrypt it");
  }
  bench.require(opened == data, "OpenSSL decrypts it to other data");
}

void decrypt(Bench& bench, const Row& row) {
  const KeyPair& pair = bench.keys.rsa(canCipher);
  const Bytes data = dataOf(row, pair.outside.get());
  const Bytes sealed = outside::encrypt(pair.outside.get(), formOf(row), data);
  const Bytes opened = inOne(bench, kitOf(bench, row, Kind::decrypt, pair.privateKey), sealed);
  bench.require(opened == data, "the plaintext is another than the one that OpenSSL encrypted");
}

// Without a padding that tells there is nothing to refuse; of PKCS #1 v1.5 one change in 65536
// makes another padding that is right.
void decryptChanged(Bench& bench, const Row& row) {
  const KeyPair& pair = bench.keys.rsa(canCipher);
  const Bytes data = dataOf(row, pair.outside.get());
  Kit kit = kitOf(bench, row, Kind::decrypt, pair.privateKey);
  const Bytes sealed = outside::encrypt(pair.outside.get(), formOf(row), data);
  bench.require(inOne(bench, kit, sealed) == data, "decrypts to other data");
  kit.input = changed(sealed, sealed.size() - 1);
  bench.control(kit.begin(bench.session));
  auto* const length = bench.memory.out<CK_ULONG>(sealed.size());
  CK_BYTE* const output = bench.memory.bytes(sealed.size());
  bench.refused(kit.single(bench.session, output, length),
                {CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE},
                "a ciphertext with one bit changed is taken for right");
}

}  // namespace

void addRsaEncryption(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    const auto add = [&](CK_FLAGS flag, const char* name, const char* clause,
                         void (*run)(Bench&, const Row&)) {
      const std::string form = *row.name == '\0' ? "" : fmt::format("/{}", row.name);
      checks.add(flag, name + form, clause, [&row, run](Bench& bench) { run(bench, row); });
    };
    add(CKF_ENCRYPT, "encrypt", "C_Encrypt", encrypt);
    add(CKF_DECRYPT, "decrypt", "C_Decrypt", decrypt);
    if (row.kind == oaep) add(CKF_DECRYPT, "decrypt-changed", "C_Decrypt", decryptChanged);
  }
}

}  // namespace kestrel::probe
