#include "probe/buffers/Questions.h"

#include <memory>

#include "probe/Kits.h"
#include "probe/Templates.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG enough = 8192;  // bytes of any answer

// Asks once with room for anything, in the state that `begin` makes, and makes that state again.
template <typename Begin>
Question twice(Bench& bench, Begin begin, std::function<CK_RV(CK_BYTE*, CK_ULONG*)> ask,
               bool alwaysSame = true) {
  auto* const length = bench.memory.out<CK_ULONG>(enough);
  CK_BYTE* const output = bench.memory.bytes(enough);
  begin();
  bench.control(ask(output, length));
  Question question{std::move(ask), *length};
  if (alwaysSame) question.answer.assign(reinterpret_cast<const char*>(output), *length);
  return question;
}

// The session of a dry run is closed with all that the answer has left in it.
struct Dry {
  explicit Dry(Bench& ofBench) : bench(ofBench) { open(); }
  void open() {
    if (session != CK_INVALID_HANDLE) bench.control(p11::C_CloseSession(session));
    auto* const handle = bench.memory.out<CK_SESSION_HANDLE>(0);
    const CK_FLAGS writing = bench.token.readOnly ? 0 : CKF_RW_SESSION;
    bench.control(p11::C_OpenSession(bench.token.slot, CKF_SERIAL_SESSION | writing, nullptr,
                                     nullptr, handle));
    session = *handle;
  }
  Bench& bench;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
};

using State = std::shared_ptr<Dry>;

template <typename Begin, typename Ask>
Question inFreshSession(Bench& bench, Begin begin, Ask ask, bool alwaysSame = true) {
  const auto state = std::make_shared<Dry>(bench);
  const auto start = [state, begin] { begin(state->session); };
  Question question = twice(
      bench, start,
      [state, ask](CK_BYTE* output, CK_ULONG* length) {
        return ask(state->session, output, length);
      },
      alwaysSame);
  state->open();
  start();
  return question;
}

template <Kind kind>
Question singlePart(Bench& bench) {
  const Kit kit = kitFor(bench, kind);
  return inFreshSession(
      bench, [&bench, kit](CK_SESSION_HANDLE session) { bench.control(kit.begin(session)); },
      [kit](CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) {
        return kit.single(session, output, length);
      },
      kit.alwaysSame);
}

template <Kind kind>
Question part(Bench& bench) {
  const Kit kit = kitInParts(bench, kind);
  return inFreshSession(
      bench, [&bench, kit](CK_SESSION_HANDLE session) { bench.control(kit.begin(session)); },
      [kit](CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) {
        return kit.update(session, output, length);
      });
}

template <Kind kind>
Question lastPart(Bench& bench) {
  const Kit kit = kitInParts(bench, kind);
  return inFreshSession(
      bench,
      [&bench, kit](CK_SESSION_HANDLE session) {
        bench.control(kit.begin(session));
        auto* const length = bench.memory.out<CK_ULONG>(enough);
        bench.control(kit.update(session, bench.memory.bytes(enough), length));
      },
      [kit](CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) {
        return kit.finish(session, output, length);
      },
      kit.alwaysSame);
}

// Two operations at once, and a part that goes through both.
template <Kind first, Kind second, const auto& function>
Question dualPart(Bench& bench) {
  const Kit one = kitInParts(bench, first), other = kitInParts(bench, second);
  const Kit& data = second == Kind::decrypt ? other : one;
  CK_BYTE* const input = bench.memory.in(View(data.input));
  const CK_ULONG size = data.input.size();
  return inFreshSession(
      bench,
      [&bench, one, other](CK_SESSION_HANDLE session) {
        bench.control(one.begin(session));
        bench.control(other.begin(session));
      },
      [input, size](CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) {
        return function(session, input, size, output, length);
      });
}

struct Wrapping {
  CK_MECHANISM_TYPE type;
  bool alwaysSame;
};

// The key that is wrapped is given to nobody: its value is made up.
Question wrappedKey(Bench& bench) {
  for (const Wrapping& each :
       {Wrapping{CKM_AES_KEY_WRAP, true}, Wrapping{CKM_AES_ECB, true},
        Wrapping{CKM_AES_KEY_WRAP_PAD, true}, Wrapping{CKM_RSA_PKCS, false}}) {
    if (!bench.token.lists(each.type, CKF_WRAP)) continue;
    const CK_OBJECT_HANDLE wrapping = each.type == CKM_RSA_PKCS
                                          ? bench.keys.rsa(canWrap | canUnwrap).publicKey
                                          : bench.keys.secret(CKK_AES, 16, canCarry).handle;
    Template attributes(bench.memory);
    attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
        .add(CKA_KEY_TYPE, CK_ULONG{CKK_AES})
        .add(CKA_TOKEN, false)
        .add(CKA_SENSITIVE, false)
        .add(CKA_EXTRACTABLE, true)
        .add(CKA_VALUE, View("a key of 16 byte"));
    auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(0);
    bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key));
    CK_MECHANISM* const mechanism = bench.memory.in(CK_MECHANISM{each.type, nullptr, 0});
    const CK_SESSION_HANDLE session = bench.session;
    return twice(
        bench, [] {},
        [=, wrapped = *key](CK_BYTE* output, CK_ULONG* length) {
          return p11::C_WrapKey(session, mechanism, wrapping, wrapped, output, length);
        },
        each.alwaysSame);
  }
  bench.notApplicable("the token has no mechanism for it");
}

Question operationState(Bench& bench) {
  const Kit kit = kitInParts(bench, Kind::digest);
  return inFreshSession(
      bench,
      [&bench, kit](CK_SESSION_HANDLE session) {
        bench.control(kit.begin(session));
        bench.control(kit.update(session, nullptr, nullptr));
      },
      [](CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) {
        return p11::C_GetOperationState(session, output, length);
      },
      false);
}

Question slotList(Bench& bench) {
  auto* const count = bench.memory.out<CK_ULONG>(0);
  bench.control(p11::C_GetSlotList(CK_FALSE, nullptr, count));
  const auto ask = [](CK_BYTE* slots, CK_ULONG* length) {
    return p11::C_GetSlotList(CK_FALSE, reinterpret_cast<CK_SLOT_ID*>(slots), length);
  };
  return {ask, *count, {}, sizeof(CK_SLOT_ID)};
}

Question mechanismList(Bench& bench) {
  auto* const count = bench.memory.out<CK_ULONG>(0);
  bench.control(p11::C_GetMechanismList(bench.token.slot, nullptr, count));
  const auto ask = [slot = bench.token.slot](CK_BYTE* types, CK_ULONG* length) {
    return p11::C_GetMechanismList(slot, reinterpret_cast<CK_MECHANISM_TYPE*>(types), length);
  };
  return {ask, *count, {}, sizeof(CK_MECHANISM_TYPE)};
}

constexpr QuestionRow rows[] = {
    {FunctionId::C_GetSlotList, Stage::initialized, slotList},
    {FunctionId::C_GetMechanismList, Stage::initialized, mechanismList},
    {FunctionId::C_GetOperationState, Stage::user, operationState},
    {FunctionId::C_Digest, Stage::user, singlePart<Kind::digest>},
    {FunctionId::C_DigestFinal, Stage::user, lastPart<Kind::digest>},
    {FunctionId::C_Sign, Stage::user, singlePart<Kind::sign>},
    {FunctionId::C_SignFinal, Stage::user, lastPart<Kind::sign>},
    {FunctionId::C_Encrypt, Stage::user, singlePart<Kind::encrypt>},
    {FunctionId::C_EncryptUpdate, Stage::user, part<Kind::encrypt>},
    {FunctionId::C_EncryptFinal, Stage::user, lastPart<Kind::encrypt>},
    {FunctionId::C_Decrypt, Stage::user, singlePart<Kind::decrypt>, true},
    {FunctionId::C_DecryptUpdate, Stage::user, part<Kind::decrypt>, true},
    {FunctionId::C_DecryptFinal, Stage::user, lastPart<Kind::decrypt>, true},
    {FunctionId::C_SignRecover, Stage::user, singlePart<Kind::signRecover>},
    {FunctionId::C_VerifyRecover, Stage::user, singlePart<Kind::verifyRecover>, true},
    {FunctionId::C_DigestEncryptUpdate, Stage::user,
     dualPart<Kind::digest, Kind::encrypt, p11::C_DigestEncryptUpdate>},
    {FunctionId::C_DecryptDigestUpdate, Stage::user,
     dualPart<Kind::digest, Kind::decrypt, p11::C_DecryptDigestUpdate>, true},
    {FunctionId::C_SignEncryptUpdate, Stage::user,
     dualPart<Kind::sign, Kind::encrypt, p11::C_SignEncryptUpdate>},
    {FunctionId::C_DecryptVerifyUpdate, Stage::user,
     dualPart<Kind::verify, Kind::decrypt, p11::C_DecryptVerifyUpdate>, true},
    {FunctionId::C_WrapKey, Stage::user, wrappedKey},
};

}  // namespace

std::span<const QuestionRow> questionRows() {
  return rows;
}

}  // namespace kestrel::probe
