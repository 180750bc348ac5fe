#include "probe/Kits.h"

#include <fmt/format.h>

#include "probe/OutsidePublic.h"
#include "probe/OutsideSymmetric.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG largest = 4096;  // bytes of a result
constexpr View text = "forty-eight bytes are three blocks of a cipher..";
static_assert(text.size() == 48);
constexpr View vector = "0123456789abcdef";

enum class Of { nothing, generic, aes, rsa, ec };

struct Candidate {
  CK_MECHANISM_TYPE type;
  Of key;
  bool inParts = true;
  bool alwaysSame = true;
  View parameter = {};
  const char* outside = nullptr;  // OpenSSL's name
};

constexpr Candidate digests[] = {{CKM_SHA256, Of::nothing},
                                 {CKM_SHA_1, Of::nothing},
                                 {CKM_SHA512, Of::nothing},
                                 {CKM_MD5, Of::nothing}};
constexpr Candidate signatures[] = {
    {CKM_SHA256_HMAC, Of::generic},          {CKM_SHA256_RSA_PKCS, Of::rsa},
    {CKM_SHA_1_HMAC, Of::generic},           {CKM_SHA1_RSA_PKCS, Of::rsa},
    {CKM_ECDSA_SHA256, Of::ec, true, false}, {CKM_RSA_PKCS, Of::rsa, false}};
constexpr Candidate ciphers[] = {
    {CKM_AES_CBC_PAD, Of::aes, true, true, vector, "AES-128-CBC"},
    {CKM_AES_CBC, Of::aes, true, true, vector, "AES-128-CBC"},
    {CKM_AES_ECB, Of::aes, true, true, {}, "AES-128-ECB"},
    {CKM_RSA_PKCS, Of::rsa, false, false},
};
constexpr Candidate recoveries[] = {{CKM_RSA_PKCS, Of::rsa, false}};

std::span<const Candidate> candidatesOf(Kind kind) {
  switch (kind) {
    case Kind::digest:
      return digests;
    case Kind::sign:
    case Kind::verify:
      return signatures;
    case Kind::encrypt:
    case Kind::decrypt:
      return ciphers;
    default:
      return recoveries;
  }
}

bool usesPublicKey(Kind kind) {
  return kind == Kind::verify || kind == Kind::encrypt || kind == Kind::verifyRecover;
}

bool isRecovery(Kind kind) {
  return kind == Kind::signRecover || kind == Kind::verifyRecover;
}

const KeyPair& pairFor(Bench& bench, const Candidate& candidate, Kind kind) {
  if (candidate.key == Of::ec) return bench.keys.ec(p256, canMac);
  if (isRecovery(kind)) return bench.keys.rsa(canSignRecover | canVerifyRecover);
  return bench.keys.rsa(
      candidate.outside == nullptr && kind != Kind::encrypt && kind != Kind::decrypt ? canMac
                                                                                     : canCipher);
}

const SecretKey& secretFor(Bench& bench, const Candidate& candidate) {
  return candidate.key == Of::aes ? bench.keys.secret(CKK_AES, 16, canCipher)
                                  : bench.keys.secret(CKK_GENERIC_SECRET, 32, canMac);
}

// What the token is given to undo or to confirm.
void addCounterpart(Bench& bench, const Candidate& candidate, Kit& kit) {
  const auto byToken = [&](Kind other, CK_OBJECT_HANDLE key) {
    Kit maker = kit;
    maker.kind = other;
    maker.key = key;
    return maker.run(bench, bench.openSession());
  };
  if (kit.kind == Kind::decrypt && candidate.key == Of::aes) {
    kit.input = outside::encrypt({.name = candidate.outside,
                                  .key = secretFor(bench, candidate).value,
                                  .iv = Bytes(candidate.parameter),
                                  .padded = candidate.type == CKM_AES_CBC_PAD},
                                 text);
  } else if (kit.kind == Kind::decrypt) {
    kit.input = outside::encrypt(pairFor(bench, candidate, kit.kind).outside.get(),
                                 {.kind = outside::RsaForm::Kind::pkcs1}, text);
  } else if (kit.kind == Kind::verify) {
    const bool secret = candidate.key == Of::generic;
    kit.given =
        byToken(Kind::sign, secret ? kit.key : pairFor(bench, candidate, kit.kind).privateKey);
  } else if (kit.kind == Kind::verifyRecover) {
    kit.input = byToken(Kind::signRecover, pairFor(bench, candidate, kit.kind).privateKey);
  }
}

Kit kitOf(Bench& bench, Kind kind, const Candidate& candidate) {
  Kit kit = operation(bench, kind, candidate.type, candidate.parameter);
  kit.inParts = candidate.inParts;
  kit.alwaysSame = candidate.alwaysSame;
  kit.input = text;
  if (candidate.key == Of::rsa || candidate.key == Of::ec) {
    const KeyPair& pair = pairFor(bench, candidate, kind);
    kit.key = usesPublicKey(kind) ? pair.publicKey : pair.privateKey;
  } else if (candidate.key != Of::nothing) {
    kit.key = secretFor(bench, candidate).handle;
  }
  if (candidate.key != Of::nothing && kit.key == CK_INVALID_HANDLE) throw NoKey{"no such key"};
  addCounterpart(bench, candidate, kit);
  return kit;
}

Kit find(Bench& bench, Kind kind, bool inParts) {
  std::string why = "the token has no mechanism for it";
  for (const Candidate& candidate : candidatesOf(kind)) {
    if ((inParts && !candidate.inParts) || !bench.token.lists(candidate.type, rowOf(kind).flag)) {
      continue;
    }
    try {
      Kit kit = kitOf(bench, kind, candidate);
      kit.run(bench, bench.openSession());
      return kit;
    } catch (const NoKey& none) {
      why = none.why;
    }
  }
  bench.notApplicable(why);
}

}  // namespace

CK_RV Kit::begin(CK_SESSION_HANDLE session) const {
  switch (kind) {
    case Kind::digest:
      return p11::C_DigestInit(session, mechanism);
    case Kind::sign:
      return p11::C_SignInit(session, mechanism, key);
    case Kind::verify:
      return p11::C_VerifyInit(session, mechanism, key);
    case Kind::encrypt:
      return p11::C_EncryptInit(session, mechanism, key);
    case Kind::decrypt:
      return p11::C_DecryptInit(session, mechanism, key);
    case Kind::signRecover:
      return p11::C_SignRecoverInit(session, mechanism, key);
    default:
      return p11::C_VerifyRecoverInit(session, mechanism, key);
  }
}

CK_RV Kit::single(CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) const {
  CK_BYTE* const data = memory->in(View(input));
  const CK_ULONG size = input.size();
  switch (kind) {
    case Kind::digest:
      return p11::C_Digest(session, data, size, output, length);
    case Kind::sign:
      return p11::C_Sign(session, data, size, output, length);
    case Kind::verify:
      return p11::C_Verify(session, data, size, memory->in(View(given)), given.size());
    case Kind::encrypt:
      return p11::C_Encrypt(session, data, size, output, length);
    case Kind::decrypt:
      return p11::C_Decrypt(session, data, size, output, length);
    case Kind::signRecover:
      return p11::C_SignRecover(session, data, size, output, length);
    default:
      return p11::C_VerifyRecover(session, data, size, output, length);
  }
}

CK_RV Kit::updateWith(CK_SESSION_HANDLE session, View part, CK_BYTE* output,
                      CK_ULONG* length) const {
  CK_BYTE* const data = memory->in(part);
  const CK_ULONG size = part.size();
  switch (kind) {
    case Kind::digest:
      return p11::C_DigestUpdate(session, data, size);
    case Kind::sign:
      return p11::C_SignUpdate(session, data, size);
    case Kind::verify:
      return p11::C_VerifyUpdate(session, data, size);
    case Kind::encrypt:
      return p11::C_EncryptUpdate(session, data, size, output, length);
    default:
      return p11::C_DecryptUpdate(session, data, size, output, length);
  }
}

CK_RV Kit::finish(CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) const {
  switch (kind) {
    case Kind::digest:
      return p11::C_DigestFinal(session, output, length);
    case Kind::sign:
      return p11::C_SignFinal(session, output, length);
    case Kind::verify:
      return p11::C_VerifyFinal(session, memory->in(View(given)), given.size());
    case Kind::encrypt:
      return p11::C_EncryptFinal(session, output, length);
    default:
      return p11::C_DecryptFinal(session, output, length);
  }
}

Bytes Kit::run(Bench& bench, CK_SESSION_HANDLE session) const {
  auto* const length = bench.memory.out<CK_ULONG>(largest);
  CK_BYTE* const output = bench.memory.bytes(largest);
  bench.control(begin(session));
  bench.control(single(session, output, length));
  if (kind == Kind::verify) return {};
  return {reinterpret_cast<const char*>(output), *length};
}

CK_MECHANISM* mechanismOf(Bench& bench, CK_MECHANISM_TYPE type, View parameter) {
  return bench.memory.in(CK_MECHANISM{
      type, parameter.empty() ? nullptr : bench.memory.in(parameter), parameter.size()});
}

Kit operation(Bench& bench, Kind kind, CK_MECHANISM_TYPE type, View parameter,
              CK_OBJECT_HANDLE key) {
  Kit kit;
  kit.kind = kind;
  kit.memory = &bench.memory;
  kit.key = key;
  kit.mechanism = mechanismOf(bench, type, parameter);
  return kit;
}

Kit kitFor(Bench& bench, Kind kind) {
  return find(bench, kind, false);
}

Kit kitInParts(Bench& bench, Kind kind) {
  return find(bench, kind, true);
}

}  // namespace kestrel::probe
