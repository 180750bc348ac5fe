// Ciphers with secret keys.
#include "probe/OutsideSymmetric.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

enum class Parameter { none, vector8, vector16, counter, gcm, ccm, chacha };

struct Row {
  CK_MECHANISM_TYPE type;
  std::string_view outside;
  CK_KEY_TYPE keyType;
  CK_ULONG keyLength;
  Parameter parameter;
  std::size_t block = 1;  // data has to be a multiple of this
  bool padded = false;
  bool inParts = true;
};

constexpr Row rows[] = {
    {CKM_AES_ECB, "AES-128-ECB", CKK_AES, 16, Parameter::none, 16},
    {CKM_AES_CBC, "AES-128-CBC", CKK_AES, 16, Parameter::vector16, 16},
    {CKM_AES_CBC_PAD, "AES-128-CBC", CKK_AES, 16, Parameter::vector16, 1, true},
    {CKM_AES_CTR, "AES-128-CTR", CKK_AES, 16, Parameter::counter},
    {CKM_AES_GCM, "AES-128-GCM", CKK_AES, 16, Parameter::gcm},
    {CKM_AES_CCM, "AES-128-CCM", CKK_AES, 16, Parameter::ccm, 1, false, false},
    {CKM_AES_OFB, "AES-128-OFB", CKK_AES, 16, Parameter::vector16},
    {CKM_AES_CFB8, "AES-128-CFB8", CKK_AES, 16, Parameter::vector16},
    {CKM_AES_CFB128, "AES-128-CFB", CKK_AES, 16, Parameter::vector16},
    {CKM_AES_XTS, "AES-128-XTS", CKK_AES_XTS, 32, Parameter::vector16, 16, false, false},
    {CKM_DES_ECB, "DES-ECB", CKK_DES, 8, Parameter::none, 8},
    {CKM_DES_CBC, "DES-CBC", CKK_DES, 8, Parameter::vector8, 8},
    {CKM_DES_CBC_PAD, "DES-CBC", CKK_DES, 8, Parameter::vector8, 1, true},
    {CKM_DES_OFB64, "DES-OFB", CKK_DES, 8, Parameter::vector8},
    {CKM_DES_CFB64, "DES-CFB", CKK_DES, 8, Parameter::vector8},
    {CKM_DES_CFB8, "DES-CFB8", CKK_DES, 8, Parameter::vector8},
    {CKM_DES3_ECB, "DES-EDE3-ECB", CKK_DES3, 24, Parameter::none, 8},
    {CKM_DES3_CBC, "DES-EDE3-CBC", CKK_DES3, 24, Parameter::vector8, 8},
    {CKM_DES3_CBC_PAD, "DES-EDE3-CBC", CKK_DES3, 24, Parameter::vector8, 1, true},
    {CKM_CAMELLIA_ECB, "CAMELLIA-128-ECB", CKK_CAMELLIA, 16, Parameter::none, 16},
    {CKM_CAMELLIA_CBC, "CAMELLIA-128-CBC", CKK_CAMELLIA, 16, Parameter::vector16, 16},
    {CKM_CAMELLIA_CBC_PAD, "CAMELLIA-128-CBC", CKK_CAMELLIA, 16, Parameter::vector16, 1, true},
    {CKM_ARIA_ECB, "ARIA-128-ECB", CKK_ARIA, 16, Parameter::none, 16},
    {CKM_ARIA_CBC, "ARIA-128-CBC", CKK_ARIA, 16, Parameter::vector16, 16},
    {CKM_ARIA_CBC_PAD, "ARIA-128-CBC", CKK_ARIA, 16, Parameter::vector16, 1, true},
    {CKM_SEED_ECB, "SEED-ECB", CKK_SEED, 16, Parameter::none, 16},
    {CKM_SEED_CBC, "SEED-CBC", CKK_SEED, 16, Parameter::vector16, 16},
    {CKM_SEED_CBC_PAD, "SEED-CBC", CKK_SEED, 16, Parameter::vector16, 1, true},
    {CKM_CHACHA20_POLY1305, "ChaCha20-Poly1305", CKK_CHACHA20, 32, Parameter::chacha},
};

constexpr View vector = "a vector of ours";
constexpr View nonce = "a nonce, 12b";
constexpr View additional = "data that is sent along";
constexpr CK_ULONG tagLength = 16;

bool authenticates(const Row& row) {
  return row.parameter == Parameter::gcm || row.parameter == Parameter::ccm ||
         row.parameter == Parameter::chacha;
}

// For `length` bytes of data, which CCM has to know before.
Bytes parameterOf(Bench& bench, const Row& row, std::size_t length) {
  CK_BYTE* const ownNonce = bench.memory.in(nonce);
  CK_BYTE* const aad = bench.memory.in(additional);
  switch (row.parameter) {
    case Parameter::none:
      return {};
    case Parameter::vector8:
      return Bytes(vector.substr(0, 8));
    case Parameter::vector16:
      return Bytes(vector);
    case Parameter::counter: {
      CK_AES_CTR_PARAMS counter{128, {}};
      std::copy(vector.begin(), vector.end(), counter.cb);
      return Bytes(viewOf(counter));
    }
    case Parameter::gcm:
      return Bytes(viewOf(CK_GCM_PARAMS{ownNonce, nonce.size(), 8 * nonce.size(), aad,
                                        additional.size(), 8 * tagLength}));
    case Parameter::ccm:
      return Bytes(
          viewOf(CcmParameters{length, ownNonce, nonce.size(), aad, additional.size(), tagLength}));
    default:
      return Bytes(
          viewOf(ChaCha20Poly1305Parameters{ownNonce, nonce.size(), aad, additional.size()}));
  }
}

outside::Cipher outsideOf(const Row& row, const SecretKey& key) {
  outside::Cipher cipher{.name = std::string(row.outside), .key = key.value};
  const bool tagged = authenticates(row);
  if (tagged) {
    cipher.iv = nonce;
    cipher.aad = additional;
    cipher.tagLength = tagLength;
  } else if (row.parameter != Parameter::none) {
    cipher.iv = vector.substr(0, row.parameter == Parameter::vector8 ? 8 : 16);
  }
  cipher.padded = row.padded;
  return cipher;
}

const SecretKey& keyOf(Bench& bench, const Row& row) {
  return bench.keys.secret(row.keyType, row.keyLength, canCipher);
}

Kit kitOf(Bench& bench, const Row& row, Kind kind, std::size_t length) {
  return operation(bench, kind, row.type, parameterOf(bench, row, length),
                   keyOf(bench, row).handle);
}

// Lengths of data about a block's, and a longer one.
std::vector<std::size_t> lengthsOf(const Row& row) {
  if (row.type == CKM_AES_XTS) return {16, 32, 480};
  if (row.block > 1) return {row.block, 2 * row.block, 60 * row.block};
  return {1, 15, 16, 17, 1003};
}

void encrypt(Bench& bench, const Row& row) {
  for (const std::size_t length : lengthsOf(row)) {
    const Bytes data = message(length);
    const Bytes result = inOne(bench, kitOf(bench, row, Kind::encrypt, length), data);
    bench.require(result == outside::encrypt(outsideOf(row, keyOf(bench, row)), data),
                  "the ciphertext is another than OpenSSL's");
  }
}

void encryptInParts(Bench& bench, const Row& row) {
  const Bytes data = message(960);
  const Bytes result = inPieces(bench, kitOf(bench, row, Kind::encrypt, data.size()), data);
  bench.require(result == outside::encrypt(outsideOf(row, keyOf(bench, row)), data),
                "the ciphertext is another than OpenSSL's");
}

void decrypt(Bench& bench, const Row& row) {
  for (const std::size_t length : lengthsOf(row)) {
    const Bytes data = message(length);
    const Bytes sealed = outside::encrypt(outsideOf(row, keyOf(bench, row)), data);
    bench.require(inOne(bench, kitOf(bench, row, Kind::decrypt, length), sealed) == data,
                  "the plaintext is another than the one that OpenSSL encrypted");
  }
}

void decryptInParts(Bench& bench, const Row& row) {
  const Bytes data = message(960);
  const Bytes sealed = outside::encrypt(outsideOf(row, keyOf(bench, row)), data);
  bench.require(inPieces(bench, kitOf(bench, row, Kind::decrypt, data.size()), sealed) == data,
                "the plaintext is another than the one that OpenSSL encrypted");
}

// The first byte of the text, and the last of the tag.
void decryptChanged(Bench& bench, const Row& row) {
  const Bytes data = message(100);
  const Bytes sealed = outside::encrypt(outsideOf(row, keyOf(bench, row)), data);
  inOne(bench, kitOf(bench, row, Kind::decrypt, data.size()), sealed);
  for (const std::size_t at : {std::size_t{0}, sealed.size() - 1}) {
    Kit kit = kitOf(bench, row, Kind::decrypt, data.size());
    kit.input = changed(sealed, at);
    bench.control(kit.begin(bench.session));
    auto* const length = bench.memory.out<CK_ULONG>(200);
    CK_BYTE* const output = bench.memory.bytes(*length);
    bench.refused(
        kit.single(bench.session, output, length),
        {CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE, CKR_AEAD_DECRYPT_FAILED},
        "a ciphertext with one bit changed is taken for right");
  }
}

}  // namespace

void addCiphers(Plan& plan) {
  for (const Row& row : rows) {
    Checks checks(plan, row.type);
    const auto add = [&](CK_FLAGS flag, const char* name, const char* clause,
                         void (*run)(Bench&, const Row&)) {
      checks.add(flag, name, clause, [&row, run](Bench& bench) { run(bench, row); });
    };
    add(CKF_ENCRYPT, "encrypt/single", "C_Encrypt", encrypt);
    if (row.inParts) add(CKF_ENCRYPT, "encrypt/parts", "C_EncryptUpdate", encryptInParts);
    add(CKF_DECRYPT, "decrypt/single", "C_Decrypt", decrypt);
    if (row.inParts) add(CKF_DECRYPT, "decrypt/parts", "C_DecryptUpdate", decryptInParts);
    if (authenticates(row)) add(CKF_DECRYPT, "decrypt/changed", "C_Decrypt", decryptChanged);
  }
}

}  // namespace kestrel::probe
