// The slots of a module, and the walk over those that hold a token.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <span>

#include "harness/Pkcs11.h"

namespace kestrel {

// Fetches the IDs of all slots, with or without a token, in the module's order: `list` gets a new
// array, `count` its length. Both calls are reported under "C_GetSlotList" and a failure ends the
// process with status 1. Returns false, with no second call, when the module has no slot.
bool fetchSlotList(std::unique_ptr<CK_SLOT_ID[]>& list, CK_ULONG& count);

// A slot list of a test's own, beside the one that TestManager keeps.
struct SlotList {
  std::unique_ptr<CK_SLOT_ID[]> ids;
  CK_ULONG count = 0;

  std::span<const CK_SLOT_ID> all() const { return {ids.get(), count}; }
};

// fetchSlotList() for such a test: a module without slots is no failure, but is said and gives
// nothing.
std::optional<SlotList> fetchOwnSlotList();

// C_GetSlotInfo into `info`, reported; a failure ends the process with status 1.
void requireSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO& info);

inline bool holdsToken(const CK_SLOT_INFO& info) {
  return (info.flags & CKF_TOKEN_PRESENT) != 0;
}

// Prints the banner of a slot without a token. Ends the process with status 1 when that slot is the
// last one and no slot before it held a token.
void reportEmptySlot(bool tokenFound, bool lastSlot);

// A slot with a token in it.
struct TokenSlot {
  CK_ULONG position;  // in the slot list, from 0
  CK_SLOT_ID id;
};

// A range over the slots that hold a token, in order. Each slot is asked (C_GetSlotInfo, reported)
// only when the walk gets there, so what a loop does with one token comes before the next question.
class PresentTokens {
 public:
  explicit PresentTokens(std::span<const CK_SLOT_ID> slots) : slots_(slots) {}

  class Iterator {
   public:
    explicit Iterator(std::span<const CK_SLOT_ID> slots) : slots_(slots) { skipEmptySlots(); }
    TokenSlot operator*() const { return {position_, slots_[position_]}; }
    Iterator& operator++() {
      ++position_;
      skipEmptySlots();
      return *this;
    }
    bool operator==(std::default_sentinel_t) const { return position_ == slots_.size(); }

   private:
    void skipEmptySlots();

    std::span<const CK_SLOT_ID> slots_;
    CK_ULONG position_ = 0;
    CK_SLOT_INFO info_{};
  };

  Iterator begin() const { return Iterator(slots_); }
  static std::default_sentinel_t end() { return {}; }

 private:
  std::span<const CK_SLOT_ID> slots_;
};

// Opens a read-only session (CKF_SERIAL_SESSION) on the slot's token; reported. `unset` is what the
// handle holds until the module fills it.
CK_SESSION_HANDLE openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE unset = 0);

// C_Logout and C_CloseSession, each reported.
void logoutAndClose(CK_SESSION_HANDLE session);

}  // namespace kestrel
