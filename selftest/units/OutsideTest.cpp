// The other side of kestrel-probe against vectors that were published: a fault in it would be
// blamed on every module.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include "probe/KeyAttributes.h"
#include "probe/OutsideDerive.h"
#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"

namespace kestrel::probe {

namespace {

Bytes fromHex(View text) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

std::string hex(View bytes) {
  std::string text;
  for (const char byte : bytes) {
    constexpr const char* digits = "0123456789abcdef";
    text += digits[(byte >> 4) & 15];
    text += digits[byte & 15];
  }
  return text;
}

// From RFC 4493, RFC 3566, FIPS 113, RFC 4231 and RFC 8439.
TEST(Outside, MacsAreThoseOfTheirStandards) {
  constexpr View data =
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710";
  const Bytes cmacKey = fromHex("2b7e151628aed2a6abf7158809cf4f3c");
  const Bytes counted = fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
  const struct {
    std::size_t length;
    const char* cmac;
  } cmacs[] = {{0, "bb1d6929e95937287fa37d129b756746"},
               {16, "070a16b46b4d4144f79bdd9dd04a287c"},
               {40, "dfa66747de9ae63030ca32611497c827"},
               {64, "51f0bebf7e3b9d92fc49741779363cfe"}};
  for (const auto& row : cmacs) {
    const Bytes part = fromHex(data.substr(0, 2 * row.length));
    EXPECT_EQ(hex(outside::cmac("AES-128-CBC", cmacKey, part)), row.cmac) << row.length;
  }
  const struct {
    std::size_t length;
    const char* xcbc;
  } xcbcs[] = {{0, "75f0251d528ac01c4573dfd584d79f29"},
               {3, "5b376580ae2f19afe7219ceef172756f"},
               {16, "d2a246fa349b68a79998a4394ff7a263"},
               {20, "47f51b4564966215b8985c63055ed308"},
               {32, "f54f0ec8d2b9f3d36807734bd5283fd4"}};
  for (const auto& row : xcbcs) {
    const View key = View(counted).substr(0, 16), part = View(counted).substr(0, row.length);
    EXPECT_EQ(hex(outside::xcbcMac(key, part)), row.xcbc) << row.length;
  }
  EXPECT_EQ(
      hex(outside::cbcMac("DES-CBC", fromHex("0123456789abcdef"), "7654321 Now is the time for ")),
      "f1d30f6849312ca4");
  EXPECT_EQ(hex(outside::hmac("SHA256", Bytes(20, '\x0b'), "Hi There")),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(hex(outside::poly1305(
                fromHex("85d6be7857556d337f4452fe42d506a80103808afb0db2fd4abff6af4149f51b"),
                "Cryptographic Forum Research Group")),
            "a8061dc1305136c6c22b8baf0c0127a9");
}

// From RFC 3394, RFC 5649, RFC 3962, RFC 3610 and the tests of GCM.
TEST(Outside, CiphersAreThoseOfTheirStandards) {
  const struct {
    outside::Cipher cipher;
    const char *plain, *encrypted;
  } rows[] = {
      {{.name = "AES-128-WRAP", .key = fromHex("000102030405060708090a0b0c0d0e0f")},
       "00112233445566778899aabbccddeeff",
       "1fa68b0a8112b447aef34bd8fb5a7b829d3e862371d2cfe5"},
      {{.name = "AES-192-WRAP-PAD",
        .key = fromHex("5840df6e29b02af1ab493b705bf16ea1ae8338f4dcc176a8")},
       "c37b7e6492584340bed12207808941155068f738",
       "138bdeaa9b8fa7fc61f97742e72248ee5ae6ae5360d1ae6a5f54f373fa543b6a"},
      {{.name = "AES-128-CBC-CTS",
        .key = fromHex("636869636b656e207465726979616b69"),
        .iv = Bytes(16, '\0'),
        .stealing = "CS3"},
       "4920776f756c64206c696b652074686520",
       "c6353568f2bf8cb4d8a580362da7ff7f97"},
      {{.name = "AES-128-GCM", .key = Bytes(16, '\0'), .iv = Bytes(12, '\0'), .tagLength = 16},
       "00000000000000000000000000000000",
       "0388dace60b6a392f328c2b971b2fe78ab6e47d42cec13bdf53a67b21257bddf"},
      {{.name = "AES-128-GCM",
        .key = fromHex("feffe9928665731c6d6a8f9467308308"),
        .iv = fromHex("cafebabefacedbad"),
        .aad = fromHex("feedfacedeadbeeffeedfacedeadbeefabaddad2"),
        .tagLength = 16},
       "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
       "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39",
       "61353b4c2806934a777ff51fa22a4755699b2a714fcdc6f83766e5f97b6c7423"
       "73806900e49f24b22b097544d4896b424989b5e1ebac0f07c23f4598"
       "3612d2e79e3b0785561be14aaca2fccb"},
      {{.name = "AES-128-CCM",
        .key = fromHex("c0c1c2c3c4c5c6c7c8c9cacbcccdcecf"),
        .iv = fromHex("00000003020100a0a1a2a3a4a5"),
        .aad = fromHex("0001020304050607"),
        .tagLength = 8},
       "08090a0b0c0d0e0f101112131415161718191a1b1c1d1e",
       "588c979a61c663d2f066d0c2c0f989806d5f6b61dac38417e8d12cfdf926e0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.cipher.name);
    const Bytes encrypted = outside::encrypt(row.cipher, fromHex(row.plain));
    EXPECT_EQ(hex(encrypted), row.encrypted) << row.cipher.name;
    EXPECT_EQ(hex(outside::decrypt(row.cipher, encrypted)), row.plain) << row.cipher.name;
    if (row.cipher.stealing != nullptr) continue;
    Bytes changed = encrypted;
    changed[3] = static_cast<char>(changed[3] ^ 1);
    EXPECT_ANY_THROW(outside::decrypt(row.cipher, changed)) << row.cipher.name;
  }
}

// OpenSSL's own function of the same name.
Bytes kbkdfOfOpenssl(const char* mode, View key, View label, View context, std::size_t length) {
  using Kdf = std::unique_ptr<EVP_KDF, Release<EVP_KDF_free>>;
  using Context = std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>>;
  const Kdf kdf(EVP_KDF_fetch(nullptr, "KBKDF", nullptr));
  const Context kdfContext(EVP_KDF_CTX_new(kdf.get()));
  const auto octets = [](const char* name, View bytes) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(bytes.data()), bytes.size());
  };
  const auto text = [](const char* name, const char* value) {
    return OSSL_PARAM_construct_utf8_string(name, const_cast<char*>(value), 0);
  };
  const OSSL_PARAM params[] = {text(OSSL_KDF_PARAM_MODE, mode),
                               text(OSSL_KDF_PARAM_MAC, "HMAC"),
                               text(OSSL_KDF_PARAM_DIGEST, "SHA256"),
                               octets(OSSL_KDF_PARAM_KEY, key),
                               octets(OSSL_KDF_PARAM_SALT, label),
                               octets(OSSL_KDF_PARAM_INFO, context),
                               OSSL_PARAM_construct_end()};
  Bytes result(length, '\0');
  EXPECT_EQ(EVP_KDF_derive(kdfContext.get(), reinterpret_cast<unsigned char*>(result.data()),
                           length, params),
            1);
  return result;
}

// From RFC 5869 and the vectors of ANSI X9.63.
TEST(Outside, DerivationsAreThoseOfTheirStandards) {
  const Bytes key(22, '\x0b'), salt = fromHex("000102030405060708090a0b0c"),
                               info = fromHex("f0f1f2f3f4f5f6f7f8f9");
  const Bytes extracted =
      fromHex("077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5");
  const char* const expanded =
      "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865";
  EXPECT_EQ(outside::hkdf({"SHA256", true, false, salt, {}}, key, 32), extracted);
  EXPECT_EQ(hex(outside::hkdf({"SHA256", false, true, {}, info}, extracted, 42)), expanded);
  EXPECT_EQ(hex(outside::hkdf({"SHA256", true, true, salt, info}, key, 42)), expanded);
  EXPECT_EQ(hex(outside::x963("SHA256", fromHex("96c05619d56c328ab95fe84b18264b08725b85e33fd34f08"),
                              {}, 16)),
            "443024c3dae66b95e6f5670601558f71");
  for (const std::size_t length : {16u, 32u, 70u}) {
    EXPECT_EQ(
        outside::kbkdf({outside::KbkdfMode::counter, "SHA256", "label", "context"}, key, length),
        kbkdfOfOpenssl("COUNTER", key, "label", "context", length));
    EXPECT_EQ(
        outside::kbkdf({outside::KbkdfMode::feedback, "SHA256", "label", "context"}, key, length),
        kbkdfOfOpenssl("FEEDBACK", key, "label", "context", length));
  }
}

// A signature is one of its key, its data and its form, and of nothing else.
TEST(Outside, SignaturesBelongToKeyDataAndForm) {
  using Kind = outside::SignatureForm::Kind;
  const OutsideKey rsa = outside::newRsaKey(2048), otherRsa = outside::newRsaKey(2048);
  const OutsideKey ec = outside::newEcKey("P-521"), otherEc = outside::newEcKey("P-521");
  const OutsideKey edwards = outside::newKey("ED25519"), otherEdwards = outside::newKey("ED25519");
  const OutsideKey dsa = outside::newDsaKey(), otherDsa = outside::newDsaKey();
  const struct {
    EVP_PKEY *key, *other;
    outside::SignatureForm form;
    std::size_t length;
  } rows[] = {
      {rsa.get(), otherRsa.get(), {Kind::pkcs1, "SHA256", true}, 256},
      {rsa.get(), otherRsa.get(), {Kind::pss, "SHA256", true, "SHA256", 32}, 256},
      {rsa.get(), otherRsa.get(), {Kind::pss, "SHA256", true, "SHA1", 0}, 256},
      {ec.get(), otherEc.get(), {Kind::numbers, "SHA512", true}, 132},
      {dsa.get(), otherDsa.get(), {Kind::numbers, "SHA256", true}, 0},
      {edwards.get(), otherEdwards.get(), {Kind::pure}, 64},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const auto& row = rows[i];
    const Bytes signature = outside::sign(row.key, row.form, "data");
    if (row.length != 0) {
      EXPECT_EQ(signature.size(), row.length) << i;
    }
    EXPECT_TRUE(outside::verifies(row.key, row.form, "data", signature)) << i;
    EXPECT_FALSE(outside::verifies(row.key, row.form, "date", signature)) << i;
    EXPECT_FALSE(outside::verifies(row.other, row.form, "data", signature)) << i;
    EXPECT_FALSE(outside::verifies(row.key, row.form, "data", "")) << i;
    EXPECT_FALSE(outside::verifies(row.key, row.form, "data", signature + "+")) << i;
    for (std::size_t j = 0; j < std::size(rows); ++j) {
      if (rows[j].key != row.key || j == i) continue;
      EXPECT_FALSE(outside::verifies(row.key, rows[j].form, "data", signature)) << i << j;
    }
  }
}

TEST(Outside, KeysAreTheSameAfterTheirNumbersWereTaken) {
  const OutsideKey rsa = outside::newRsaKey(1024), ec = outside::newEcKey("P-256"),
                   edwards = outside::newKey("ED25519");
  const OutsideKey again[] = {
      outside::rsaPublicKey(outside::number(rsa.get(), "n"), outside::number(rsa.get(), "e")),
      outside::ecPublicKey("P-256", outside::point(ec.get())),
      outside::keyOfInfo(outside::privateKeyInfo(edwards.get()))};
  EXPECT_EQ(EVP_PKEY_eq(again[0].get(), rsa.get()), 1);
  EXPECT_EQ(EVP_PKEY_eq(again[1].get(), ec.get()), 1);
  EXPECT_EQ(EVP_PKEY_eq(again[2].get(), edwards.get()), 1);
  EXPECT_EQ(outside::point(ec.get()).size(), 65u);
  EXPECT_EQ(outside::rawPrivateKey(edwards.get()).size(), 32u);
  EXPECT_EQ(outside::keyOfInfo("no PrivateKeyInfo"), nullptr);
  EXPECT_EQ(hex(withOddParity(fromHex("0001feff80"))), "0101fefe80");
  EXPECT_EQ(hex(der(4, Bytes(3, 'x'))), "0403787878");
}

}  // namespace

}  // namespace kestrel::probe
