// What every entry of the software token shares: the record of calls and the answers from outside.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <mutex>
#include <string>
#include <utility>

#include "token/State.h"

namespace kestrel::token {

// One argument as the record shows it.
struct Argument {
  std::string text;
  Argument(CK_ULONG number);
  Argument(const void* pointer);     // null or &
  Argument(const CK_ULONG* number);  // null or &value
  Argument(
      const CK_MECHANISM* mechanism);  // type and, if it is no longer than any known, parameter
  Argument(const CK_ATTRIBUTE* attributes, CK_ULONG count, bool values);
  Argument(const CK_BYTE* bytes, CK_ULONG count);  // hexadecimal, or the count alone if long
};

// With a "random" directive: true now and then, with each seed more or less often.
bool chance();

// One call of an entry, under the module's lock: records it, and answers it from outside if the
// overrides say so. At its end it alters the counts and lengths that go out, if they say so.
class Call {
 public:
  Call(const char* name, std::initializer_list<Argument> arguments,
       std::vector<CK_ULONG*> outputs = {}, bool early = false);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // Whether the call is answered already, by `result`: from outside, or because the module is not
  // initialised (unless the entry may be called early).
  bool answered() const { return answered_; }
  CK_RV result = CKR_OK;

  // What the call is about; null when it is answered already, be it because there is no such thing.
  Slot* slot(CK_SLOT_ID id);
  Slot* token(CK_SLOT_ID id);  // of a slot with a token in it
  Session* session(CK_SESSION_HANDLE handle);

  // A record goes out: at random it is full of anything.
  void scramble(void* record, std::size_t size) const;

 private:
  CK_RV answer(CK_RV value);

  std::lock_guard<std::mutex> lock_;
  std::string name_;
  std::vector<CK_ULONG*> outputs_;
  bool answered_ = false;
};

// A pointer as the record shows it, whatever it points to.
inline const void* at(const void* pointer) {
  return pointer;
}

// The two-call pattern: what is there goes to `out`, of room for `capacity` items.
template <typename Item>
CK_RV deliver(const Item* items, CK_ULONG count, Item* out, CK_ULONG* capacity) {
  if (capacity == nullptr) return CKR_ARGUMENTS_BAD;
  const CK_ULONG room = std::exchange(*capacity, count);
  if (out == nullptr) return CKR_OK;
  if (room < count) return CKR_BUFFER_TOO_SMALL;
  std::copy_n(items, count, out);
  return CKR_OK;
}

}  // namespace kestrel::token
