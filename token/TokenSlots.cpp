// The entries of the software token for its slots, tokens and mechanisms.
#include "token/Call.h"
#include "token/PaddedText.h"
#include "token/TokenMechanisms.h"

namespace kestrel::token {

namespace {

bool hasToken(const Slot& slot) {
  return !slot.settings.has("empty");
}

CK_FLAGS pinFlags(const Slot& slot) {
  return (slot.tries < 3 ? CKF_USER_PIN_COUNT_LOW : 0) |
         (slot.tries < 2 ? CKF_USER_PIN_FINAL_TRY : 0) | (slot.tries < 1 ? CKF_USER_PIN_LOCKED : 0);
}

// One for each slot, the same in every run.
std::string serialNumber(const Slot& slot) {
  std::string digits = std::to_string(slot.id);
  digits.insert(0, 14 - std::min<std::size_t>(14, digits.size()), '0');
  return "KT" + digits.substr(digits.size() - 14);
}

void countSessions(const Slot& slot, CK_TOKEN_INFO& info) {
  for (const auto& [handle, session] : token().sessions) {
    if (session.slot != &slot) continue;
    ++info.ulSessionCount;
    if (session.readWrite) ++info.ulRwSessionCount;
  }
}

}  // namespace

}  // namespace kestrel::token

using namespace kestrel::token;

CK_RV C_GetSlotList(CK_BBOOL present, CK_SLOT_ID* list, CK_ULONG* count) {
  Call call("C_GetSlotList", {CK_ULONG{present}, at(list), count}, {count});
  if (call.answered()) return call.result;
  std::vector<CK_SLOT_ID> ids;
  for (const Slot& slot : token().config.slots) {
    if (hasToken(slot) || present == CK_FALSE) ids.push_back(slot.id);
  }
  return deliver(ids.data(), ids.size(), list, count);
}

CK_RV C_GetSlotInfo(CK_SLOT_ID id, CK_SLOT_INFO* info) {
  Call call("C_GetSlotInfo", {id, info});
  if (call.answered()) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const Slot* slot = call.slot(id);
  if (slot == nullptr) return call.result;
  pad(info->slotDescription, slot->settings.text("description", "kestrel software reader"));
  pad(info->manufacturerID, slot->settings.text("manufacturer", "kestrel"));
  info->flags = slot->settings.number("flags", CKF_REMOVABLE_DEVICE | CKF_HW_SLOT) |
                (hasToken(*slot) ? CKF_TOKEN_PRESENT : 0);
  info->hardwareVersion = info->firmwareVersion = {1, 0};
  call.scramble(info, sizeof *info);
  return CKR_OK;
}

CK_RV C_GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO* info) {
  Call call("C_GetTokenInfo", {id, info});
  const Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  *info = {};
  pad(info->label, slot->settings.text("label", "kestrel token"));
  pad(info->manufacturerID, slot->settings.text("maker", "kestrel"));
  pad(info->model, slot->settings.text("model", "software"));
  pad(info->serialNumber, serialNumber(*slot));
  pad(info->utcTime, "");
  info->flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED |
                pinFlags(*slot);
  info->ulMaxSessionCount = info->ulMaxRwSessionCount = CK_EFFECTIVELY_INFINITE;
  countSessions(*slot, *info);
  info->ulMinPinLen = minPinLength;
  info->ulMaxPinLen = maxPinLength;
  info->ulTotalPublicMemory = info->ulFreePublicMemory = CK_UNAVAILABLE_INFORMATION;
  info->ulTotalPrivateMemory = info->ulFreePrivateMemory = CK_UNAVAILABLE_INFORMATION;
  info->hardwareVersion = info->firmwareVersion = {1, 0};
  call.scramble(info, sizeof *info);
  return CKR_OK;
}

CK_RV C_GetMechanismList(CK_SLOT_ID id, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  Call call("C_GetMechanismList", {id, at(list), count}, {count});
  const Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  const std::vector<CK_MECHANISM_TYPE> types = mechanismsOf(*slot);
  return deliver(types.data(), types.size(), list, count);
}

// Of a mechanism that is only listed there is nothing to say.
CK_RV C_GetMechanismInfo(CK_SLOT_ID id, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  Call call("C_GetMechanismInfo", {id, type, info}, {info == nullptr ? nullptr : &info->flags});
  const Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  if (!hasMechanism(*slot, type)) return CKR_MECHANISM_INVALID;
  *info = {2048, 4096, usesOf(type) == 0 ? 0 : usesOf(type) | CKF_HW};
  return CKR_OK;
}
