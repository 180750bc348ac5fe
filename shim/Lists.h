// A list of the module's in storage of ours. The module never writes into the room of a caller who
// was told of a shorter list than the module has, whatever the module does.
#pragma once

#include <algorithm>
#include <memory>
#include <new>

#include "harness/Pkcs11.h"
#include "shim/CallersMemory.h"

// More is no answer; as kestrel has it.
inline constexpr CK_ULONG maxItems = CK_ULONG{1} << 20;

// Storage behind the room that a module is told of: some write all that they have.
inline constexpr CK_ULONG spareItems = 4096;

// Says on standard error, once, that a module's list did not fit the room that it was told of.
void nameOverrun(const char* function, CK_ULONG count, CK_ULONG room);

template <typename Item>
struct Items {
  std::unique_ptr<Item[]> storage;
  CK_ULONG count = 0;
  CK_ULONG whole = 0;  // as many as the module has

  Item* begin() const { return storage.get(); }
  Item* end() const { return storage.get() + count; }
  bool reserve(CK_ULONG room) {
    storage.reset(new (std::nothrow) Item[room + spareItems]{});
    return storage != nullptr;
  }

  template <typename Keep>
  void keepOnly(Keep keep) {
    const auto drop = [&keep](Item item) { return !keep(item); };
    count = static_cast<CK_ULONG>(std::remove_if(begin(), end(), drop) - begin());
  }
};

// `ask` is a call of the function `name` for the list, of (Item*, CK_ULONG*). There is storage for
// `room` items.
template <typename Item, typename Ask>
CK_RV fetchInto(Items<Item>& items, CK_ULONG room, const char* name, Ask ask) {
  items.count = room;
  const CK_RV result = ask(items.begin(), &items.count);
  if (result == CKR_OK && items.count > room) nameOverrun(name, items.count, room);
  return result;
}

// All of the list.
template <typename Item, typename Ask>
CK_RV fetch(Items<Item>& items, const char* name, Ask ask) {
  CK_ULONG room = 0;
  CK_RV result = ask(nullptr, &room);
  if (result != CKR_OK) return result;
  if (room > maxItems) return CKR_FUNCTION_FAILED;
  if (!items.reserve(room)) return CKR_HOST_MEMORY;
  result = fetchInto(items, room, name, ask);
  items.whole = items.count;
  return result == CKR_OK && items.count > room ? CKR_FUNCTION_FAILED : result;
}

// The list without the items that `keep` does not let through. A caller with room for them gets
// them from the whole list. To less room, and where the whole list is not to be had, the module's
// own answer counts, be it wrong.
template <typename Item, typename Ask, typename Keep>
CK_RV listFiltered(Item* list, CK_ULONG* count, const char* name, Ask ask, Keep keep) {
  const auto room = valueAt<CK_ULONG>(count);
  if (!room) return ask(list, count);
  Items<Item> items;
  const CK_RV fetched = fetch(items, name, ask);
  if (fetched == CKR_OK) {
    items.keepOnly(keep);
    *count = items.count;
  }
  if (list == nullptr) return fetched;
  if (fetched != CKR_OK || *room < items.count) {
    const CK_ULONG asked = std::min(*room, maxItems);
    const CK_ULONG most = std::max(asked, fetched == CKR_OK ? items.whole : 0);
    if (!items.reserve(most)) return CKR_HOST_MEMORY;
    const CK_RV result = fetchInto(items, asked, name, ask);
    if (result != CKR_OK) return result;
    items.count = std::min(items.count, most);
    items.keepOnly(keep);
    *count = items.count;
  }
  std::copy_n(items.begin(), std::min(*room, items.count), list);
  return CKR_OK;
}
