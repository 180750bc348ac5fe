// The two waivers of signatures.
#include "shim/CallersMemory.h"
#include "shim/Changes.h"
#include "shim/Shim.h"
#include "shim/StepIn.h"

namespace {

// A C_Sign that the module refused, and the ways around it.
class RefusedSign {
 public:
  RefusedSign(CK_SESSION_HANDLE session, CK_ULONG* length, const SignatureBegun& begun)
      : session_(session), length_(length), begun_(begun) {
    if (shim.settings.waives(Waiver::saltLength)) salted_ = begun.salted();
  }

  // Is `result` a refusal? For a signature's sake a doubtful one is asked for again: what is
  // refused comes again. `askAgain` is the caller's question.
  template <typename Ask>
  bool isMeant(CK_RV result, bool signs, Ask askAgain) {
    if (!signs || !isDoubtful(result)) return isRefusal(result);
    if (!salted_) return false;
    begun_.begin(session_);  // fails where the operation still goes on
    return askAgain() == result;
  }

  // Each deviation alone, then both.
  template <typename Ask>
  bool isHelped(bool asksForLengthAlone, Ask askAgain) {
    const bool lengthQuery = asksForLengthAlone && shim.settings.waives(Waiver::lengthQuery);
    if (lengthQuery && helps(Waiver::lengthQuery, [&] { return askForLengthOf(begun_); })) {
      return true;
    }
    if (!salted_) return false;
    const auto askSalted = [&] {
      const CK_RV again = salted_->begin(session_);
      return again == CKR_OK ? askAgain() : again;
    };
    const auto askBoth = [&] {
      return stepIn(Waiver::lengthQuery, [&] { return askForLengthOf(*salted_); });
    };
    const bool helped =
        helps(Waiver::saltLength, askSalted) || (lengthQuery && helps(Waiver::saltLength, askBoth));
    if (helped) shim.signatures.remember(session_, *salted_);
    return helped;
  }

 private:
  template <typename Again>
  bool helps(Waiver waiver, Again again) {
    return stepIn(waiver, again) == CKR_OK;
  }

  // With 32 bytes of data: what every mechanism takes, be it a digest of SHA-256.
  CK_RV askForLength() {
    CK_BYTE digest[32]{};
    CK_ULONG answer = 0;
    const CK_RV result =
        ask(&CK_FUNCTION_LIST::C_Sign, session_, digest, sizeof digest, nullptr, &answer);
    if (result == CKR_OK) *length_ = answer;
    return result;
  }

  // The refusal may have ended the operation, as the standard has it.
  CK_RV askForLengthOf(const SignatureBegun& begun) {
    if (askForLength() == CKR_OK) return CKR_OK;
    const CK_RV again = begun.begin(session_);
    return again == CKR_OK ? askForLength() : again;
  }

  CK_SESSION_HANDLE session_;
  CK_ULONG* length_;
  const SignatureBegun& begun_;
  std::optional<SignatureBegun> salted_;
};

CK_RV beginSignature(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  const auto asked = valueAt<CK_MECHANISM>(mechanism);  // before the module can write to it
  const auto begun = asked ? std::optional<SignatureBegun>({*asked, key}) : std::nullopt;
  const CK_RV result = ask(&CK_FUNCTION_LIST::C_SignInit, session, mechanism, key);
  if (result == CKR_OK && begun) {
    shim.signatures.remember(session, *begun);
  } else if (result == CKR_OK) {
    shim.signatures.forget(session);  // without a mechanism an operation is ended
  }
  if (!begun || !isRefusal(result) || !shim.settings.waives(Waiver::saltLength)) return result;
  const auto salted = begun->salted();
  if (!salted) return result;
  const CK_RV again = stepIn(Waiver::saltLength, [&] { return salted->begin(session); });
  if (again != CKR_OK) return result;
  shim.signatures.remember(session, *salted);
  return again;
}

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG dataLength, CK_BYTE* signature,
           CK_ULONG* length) {
  const auto begun = shim.signatures.of(session);
  const auto room = valueAt<CK_ULONG>(length);
  const auto askAsAsked = [&] {
    return ask(&CK_FUNCTION_LIST::C_Sign, session, data, dataLength, signature, length);
  };
  CK_RV result = askAsAsked();
  if (begun && room && result != CKR_OK) {
    const auto askAgain = [&] {
      *length = *room;
      return askAsAsked();
    };
    const bool forLengthAlone = data == nullptr && signature == nullptr;
    RefusedSign refused(session, length, *begun);
    if (refused.isMeant(result, signature != nullptr, askAgain) &&
        refused.isHelped(forLengthAlone, askAgain)) {
      result = CKR_OK;
    }
  }
  const bool goesOn = result == CKR_BUFFER_TOO_SMALL || (result == CKR_OK && signature == nullptr);
  if (!goesOn) shim.signatures.forget(session);
  return result;
}

// A call behind which the session's signature is none that a waiver knows of.
template <auto entry, typename... Rest>
CK_RV forgetAndAsk(CK_SESSION_HANDLE session, Rest... rest) {
  shim.signatures.forget(session);
  return ask(entry, session, rest...);
}

// A session may have closed with all of its slot, and another get its handle.
CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                  CK_SESSION_HANDLE* session) {
  const CK_RV result =
      ask(&CK_FUNCTION_LIST::C_OpenSession, slot, flags, application, notify, session);
  const auto opened = valueAt<CK_SESSION_HANDLE>(session);
  if (result == CKR_OK && opened) shim.signatures.forget(*opened);
  return result;
}

CK_RV finalize(void* reserved) {
  shim.signatures.forgetAll();
  return ask(&CK_FUNCTION_LIST::C_Finalize, reserved);
}

}  // namespace

void addSignatureChanges(CK_FUNCTION_LIST& list) {
  list.C_SignInit = beginSignature;
  list.C_Sign = sign;
  list.C_SignUpdate = forgetAndAsk<&CK_FUNCTION_LIST::C_SignUpdate>;
  list.C_SignFinal = forgetAndAsk<&CK_FUNCTION_LIST::C_SignFinal>;
  list.C_SignEncryptUpdate = forgetAndAsk<&CK_FUNCTION_LIST::C_SignEncryptUpdate>;
  list.C_SetOperationState = forgetAndAsk<&CK_FUNCTION_LIST::C_SetOperationState>;
  list.C_CloseSession = forgetAndAsk<&CK_FUNCTION_LIST::C_CloseSession>;
  list.C_OpenSession = openSession;
  list.C_Finalize = finalize;
}
