#include "shim/Changes.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "shim/Shim.h"
#include "shim/SigningMechanisms.h"

namespace {

// More is no answer; as kestrel has it.
constexpr CK_ULONG maxItems = CK_ULONG{1} << 20;

// The slot that kestrel names in some calls whichever is under test.
constexpr CK_SLOT_ID fixedSlot = 1;

// Asks again after `refusal`, which stands unless the second answer is CKR_OK.
template <typename Again>
CK_RV stepIn(Waiver waiver, CK_RV refusal, Again again) {
  shim.note('+', waiver);
  if (again() == CKR_OK) return CKR_OK;
  shim.note('-', waiver);
  return refusal;
}

// All the items of one of the module's lists.
template <typename Item>
struct Items {
  std::unique_ptr<Item[]> storage;
  CK_ULONG count = 0;

  Item* begin() const { return storage.get(); }
  Item* end() const { return storage.get() + count; }
};

// `ask` is a call for the list, of (Item*, CK_ULONG*).
template <typename Item, typename Ask>
CK_RV fetch(Items<Item>& items, Ask ask) {
  const CK_RV result = ask(nullptr, &items.count);
  if (result != CKR_OK) return result;
  if (items.count > maxItems) return CKR_FUNCTION_FAILED;
  const CK_ULONG room = items.count;
  items.storage.reset(new (std::nothrow) Item[room + 1]);
  if (items.storage == nullptr) return CKR_HOST_MEMORY;
  const CK_RV second = ask(items.storage.get(), &items.count);
  return second == CKR_OK && items.count > room ? CKR_FUNCTION_FAILED : second;
}

// A list without the items that `keep` does not let through. The module is asked as the caller
// asked, and what it refuses or answers in a senseless way goes through.
template <typename Item, typename Ask, typename Keep>
CK_RV listFiltered(Item* list, CK_ULONG* count, Ask ask, Keep keep) {
  const CK_ULONG room = count == nullptr ? 0 : *count;
  const CK_RV result = ask(list, count);
  const bool measured = result == CKR_OK && list == nullptr;
  const bool filled = result == CKR_OK && list != nullptr;
  const auto drop = [&keep](Item item) { return !keep(item); };
  // The caller made room for what is kept, and the module has more.
  const bool crowded = result == CKR_BUFFER_TOO_SMALL && list != nullptr && room > 0;
  if (count == nullptr || *count > maxItems) return result;
  if (filled && *count <= room) {
    Item* const end = std::remove_if(list, list + *count, drop);
    *count = static_cast<CK_ULONG>(end - list);
  }
  if (!measured && !crowded) return result;
  Items<Item> items;
  const CK_RV fetched = fetch(items, ask);
  if (fetched != CKR_OK) return fetched;
  Item* const end = std::remove_if(items.begin(), items.end(), drop);
  *count = static_cast<CK_ULONG>(end - items.begin());
  if (measured) return CKR_OK;
  if (room < *count) return CKR_BUFFER_TOO_SMALL;
  std::copy(items.begin(), end, list);
  return CKR_OK;
}

bool isShown(CK_SLOT_ID slot) {
  CK_TOKEN_INFO info{};
  return ask(&CK_FUNCTION_LIST::C_GetTokenInfo, slot, &info) == CKR_OK &&
         shim.settings.token->matches(slot, info);
}

bool isListed(CK_SLOT_ID slot, CK_MECHANISM_TYPE type) {
  const MechanismList& wanted = *shim.settings.mechanisms;
  if (std::ranges::count(wanted.types, type) != 0) return true;
  const SigningMechanism* const row = findSigningMechanism(type);
  if (row == nullptr || !(wanted.signable || (wanted.multipart && row->inParts))) return false;
  CK_MECHANISM_INFO info{};
  return ask(&CK_FUNCTION_LIST::C_GetMechanismInfo, slot, type, &info) == CKR_OK &&
         (info.flags & CKF_SIGN) != 0;
}

CK_RV listMechanismsOf(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  const auto askFor = [slot](CK_MECHANISM_TYPE* types, CK_ULONG* number) {
    return ask(&CK_FUNCTION_LIST::C_GetMechanismList, slot, types, number);
  };
  if (!shim.settings.mechanisms) return askFor(list, count);
  return listFiltered(list, count, askFor,
                      [slot](CK_MECHANISM_TYPE type) { return isListed(slot, type); });
}

// Asks for `slot`; where it is the fixed one, is not listed and is refused, for the first that is.
template <typename Ask>
CK_RV askForSlot(CK_SLOT_ID slot, Ask ask) {
  const CK_RV result = ask(slot);
  if (result == CKR_OK || slot != fixedSlot || !shim.settings.waives(Waiver::fixedSlot)) {
    return result;
  }
  Items<CK_SLOT_ID> slots;
  const CK_RV listed = fetch(
      slots, [](CK_SLOT_ID* list, CK_ULONG* count) { return listSlots(CK_FALSE, list, count); });
  if (listed != CKR_OK || slots.count == 0 || std::ranges::count(slots, slot) != 0) return result;
  return stepIn(Waiver::fixedSlot, result, [&] { return ask(*slots.begin()); });
}

CK_ULONG digestLength(CK_MECHANISM_TYPE digest) {
  switch (digest) {
    case CKM_SHA_1:
      return 20;
    case CKM_SHA256:
      return 32;
    case CKM_SHA384:
      return 48;
    case CKM_SHA512:
      return 64;
    default:
      return 0;
  }
}

// The parameter with a salt as long as the digest; nothing for a mechanism without one of all ones.
std::optional<CK_RSA_PKCS_PSS_PARAMS> withSaltLength(const CK_MECHANISM& mechanism) {
  const SigningMechanism* const row = findSigningMechanism(mechanism.mechanism);
  if (row == nullptr || !row->pss || mechanism.pParameter == nullptr ||
      mechanism.ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS)) {
    return std::nullopt;
  }
  auto parameters = *static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
  if (parameters.sLen != ~CK_ULONG{0}) return std::nullopt;
  parameters.sLen = digestLength(parameters.hashAlg);
  return parameters;
}

// A C_SignInit that went well.
struct SignatureBegun {
  CK_SESSION_HANDLE session;
  CK_MECHANISM mechanism;
  CK_OBJECT_HANDLE key;
  alignas(CK_ULONG) CK_BYTE parameter[256];

  // The mechanism, with the parameter that is kept here.
  CK_MECHANISM* kept() {
    if (mechanism.pParameter != nullptr) mechanism.pParameter = parameter;
    return &mechanism;
  }
};

// The last one of all, for a module that ends the operation when it refuses what is waived.
std::mutex lastSignatureMutex;
std::optional<SignatureBegun> lastSignature;

void rememberSignature(CK_SESSION_HANDLE session, const CK_MECHANISM& mechanism,
                       CK_OBJECT_HANDLE key) {
  const std::lock_guard lock(lastSignatureMutex);
  lastSignature.reset();
  if (mechanism.ulParameterLen > sizeof lastSignature->parameter) return;
  lastSignature = {session, mechanism, key, {}};
  if (mechanism.pParameter == nullptr) return;
  std::memcpy(lastSignature->parameter, mechanism.pParameter, mechanism.ulParameterLen);
}

std::optional<SignatureBegun> signatureOf(CK_SESSION_HANDLE session) {
  const std::lock_guard lock(lastSignatureMutex);
  return lastSignature && lastSignature->session == session ? lastSignature : std::nullopt;
}

CK_RV beginWith(CK_SESSION_HANDLE session, CK_MECHANISM mechanism,
                CK_RSA_PKCS_PSS_PARAMS parameters, CK_OBJECT_HANDLE key) {
  mechanism.pParameter = &parameters;
  return ask(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, key);
}

// A good answer, and those that ask for a step of the caller's, stand.
bool isRefusal(CK_RV result) {
  return result != CKR_OK && result != CKR_BUFFER_TOO_SMALL && result != CKR_USER_NOT_LOGGED_IN;
}

// The question for a signature's length, with 32 bytes of data: what every mechanism takes, be it a
// digest of SHA-256.
CK_RV askForLength(CK_SESSION_HANDLE session, CK_ULONG* length) {
  CK_BYTE digest[32]{};
  CK_ULONG answer = 0;
  const CK_RV result =
      ask(&CK_FUNCTION_LIST::C_Sign, session, digest, sizeof digest, nullptr, &answer);
  if (result == CKR_OK) *length = answer;
  return result;
}

CK_RV askForLengthWithData(CK_SESSION_HANDLE session, CK_ULONG* length) {
  const CK_RV result = askForLength(session, length);
  std::optional<SignatureBegun> begun = signatureOf(session);
  if (result == CKR_OK || !begun) return result;
  const CK_RV again = ask(&CK_FUNCTION_LIST::C_SignInit, session, begun->kept(), begun->key);
  return again == CKR_OK ? askForLength(session, length) : again;
}

}  // namespace

CK_RV initialize(void* arguments) {
  if (shim.reportsProblem()) return CKR_GENERAL_ERROR;
  return ask(&CK_FUNCTION_LIST::C_Initialize, arguments);
}

CK_RV listSlots(CK_BBOOL tokenPresent, CK_SLOT_ID* list, CK_ULONG* count) {
  const auto askFor = [tokenPresent](CK_SLOT_ID* ids, CK_ULONG* number) {
    return ask(&CK_FUNCTION_LIST::C_GetSlotList, tokenPresent, ids, number);
  };
  if (!shim.settings.token) return askFor(list, count);
  const CK_RV result = listFiltered(list, count, askFor, isShown);
  if (result == CKR_OK && *count == 0) {
    std::fputs("kestrel-shim: no token matches KESTREL_SHIM_TOKEN\n", stderr);
  }
  return result;
}

CK_RV listMechanisms(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  const CK_ULONG room = count == nullptr ? 0 : *count;
  return askForSlot(slot, [&](CK_SLOT_ID id) {
    if (count != nullptr) *count = room;
    return listMechanismsOf(id, list, count);
  });
}

CK_RV describeMechanism(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  return askForSlot(slot, [&](CK_SLOT_ID id) {
    return ask(&CK_FUNCTION_LIST::C_GetMechanismInfo, id, type, info);
  });
}

CK_RV closeAllSessions(CK_SLOT_ID slot) {
  return askForSlot(slot,
                    [](CK_SLOT_ID id) { return ask(&CK_FUNCTION_LIST::C_CloseAllSessions, id); });
}

CK_RV setPin(CK_SESSION_HANDLE session, CK_UTF8CHAR* oldPin, CK_ULONG oldLength,
             CK_UTF8CHAR* newPin, CK_ULONG newLength) {
  const auto askIn = [&](CK_SESSION_HANDLE handle) {
    return ask(&CK_FUNCTION_LIST::C_SetPIN, handle, oldPin, oldLength, newPin, newLength);
  };
  CK_RV result = askIn(session);
  if (result != CKR_SESSION_READ_ONLY || !shim.settings.waives(Waiver::readOnly)) return result;
  stepIn(Waiver::readOnly, result, [&] {
    CK_SESSION_INFO info{};
    CK_SESSION_HANDLE writable = 0;
    CK_RV opened = ask(&CK_FUNCTION_LIST::C_GetSessionInfo, session, &info);
    if (opened == CKR_OK) {
      opened = ask(&CK_FUNCTION_LIST::C_OpenSession, info.slotID,
                   CK_FLAGS{CKF_SERIAL_SESSION | CKF_RW_SESSION}, nullptr, nullptr, &writable);
    }
    if (opened != CKR_OK) return opened;
    result = askIn(writable);  // a wrong PIN has cost a try by now, and is to be seen
    ask(&CK_FUNCTION_LIST::C_CloseSession, writable);
    return result;
  });
  return result;
}

CK_RV beginSignature(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  const CK_MECHANISM asked = mechanism == nullptr ? CK_MECHANISM{} : *mechanism;
  const auto salted = withSaltLength(asked);
  const CK_RV result = ask(&CK_FUNCTION_LIST::C_SignInit, session, mechanism, key);
  if (result == CKR_OK && shim.settings.waived.any()) rememberSignature(session, asked, key);
  if (!isRefusal(result) || !salted || !shim.settings.waives(Waiver::saltLength)) return result;
  return stepIn(Waiver::saltLength, result, [&] {
    const CK_RV again = beginWith(session, asked, *salted, key);
    CK_MECHANISM begun = asked;
    begun.pParameter = const_cast<CK_RSA_PKCS_PSS_PARAMS*>(&*salted);
    if (again == CKR_OK) rememberSignature(session, begun, key);
    return again;
  });
}

CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature,
           CK_ULONG* signatureLength) {
  const auto askAsAsked = [&] {
    return ask(&CK_FUNCTION_LIST::C_Sign, session, data, length, signature, signatureLength);
  };
  const CK_ULONG room = signatureLength == nullptr ? 0 : *signatureLength;
  const CK_RV result = askAsAsked();
  if (!isRefusal(result) || signatureLength == nullptr) return result;
  if (data == nullptr && signature == nullptr && shim.settings.waives(Waiver::lengthQuery)) {
    return stepIn(Waiver::lengthQuery, result,
                  [&] { return askForLengthWithData(session, signatureLength); });
  }
  // Some modules look at the salt length only here.
  std::optional<SignatureBegun> begun = signatureOf(session);
  const auto salted = begun ? withSaltLength(*begun->kept()) : std::nullopt;
  if (!salted || !shim.settings.waives(Waiver::saltLength)) return result;
  return stepIn(Waiver::saltLength, result, [&] {
    *signatureLength = room;
    const CK_RV again = beginWith(session, begun->mechanism, *salted, begun->key);
    return again == CKR_OK ? askAsAsked() : again;
  });
}
