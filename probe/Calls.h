// The one place through which every call into the module passes. p11::C_Login(...) calls it with
// these arguments. Around every call:
//
// - the board has the call's name, for whoever has to say where the process ended;
// - every pointer has to be null or into the caller's guarded memory: a mistake in a check is found
//   at once, and no check can give a module memory that is not watched;
// - afterwards the patterns before all blocks are looked at, the return value is held against the
//   function's list, and a length or count that comes back against the room that was given.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>

#include "probe/Board.h"
#include "probe/Functions.h"
#include "probe/Memory.h"
#include "probe/Pkcs11v3.h"

namespace kestrel::probe {

// A call came to an end that no return value tells of. Thrown through the check.
struct CallEnded {
  enum class Why { noFunction, exception, damage, nonsense };
  Why why;
  FunctionId function;
};

// One thread that calls the module, with memory of its own.
class Caller {
 public:
  // Throws std::runtime_error for more threads than a board has places.
  explicit Caller(Board& board);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  Memory memory;
  FunctionId lastFunction = FunctionId::count;
  CK_RV lastValue = 0;
  unsigned callCount = 0;

  void begin(CallNumber number);
  void end();
  void returned(FunctionId function, CK_RV value);

  // The one of this thread. There is always one where the module is called.
  static Caller& current();

  // For a signal handler: this thread's call, or the first thread's; and what a fault
  // at an address means to any of them.
  static CallNumber callOfThisThread();
  static Memory::Place placeOf(const void* address);

 private:
  Board& board_;
  std::atomic<CallNumber>& call_;
};

// The lists of the module that is loaded; null before, and without 3.0.
struct FunctionLists {
  CK_FUNCTION_LIST* list2 = nullptr;
  FunctionList3* list3 = nullptr;
};
extern FunctionLists functionLists;

// The module has no function where its list should have one.
[[noreturn]] void endWithoutFunction(FunctionId function);
[[noreturn]] void endAfterException(FunctionId function);

// Throws std::logic_error.
[[noreturn]] void refuseUnguarded(FunctionId function);

template <typename Argument>
void requireGuarded(FunctionId function, const Argument& argument) {
  if constexpr (std::is_pointer_v<Argument> &&
                !std::is_function_v<std::remove_pointer_t<Argument>>) {
    if (argument != nullptr && !Caller::current().memory.owns(argument)) refuseUnguarded(function);
  }
}

// The length or count that comes back from a call: the last argument, behind the room that it is
// of. Null for other functions.
template <typename... Parameters>
CK_ULONG* lengthOf(FunctionId function, const std::tuple<Parameters...>& arguments) {
  constexpr std::size_t count = sizeof...(Parameters);
  if constexpr (count >= 3) {
    using Last = std::tuple_element_t<count - 1, std::tuple<Parameters...>>;
    using Room = std::tuple_element_t<count - 2, std::tuple<Parameters...>>;
    if constexpr (std::is_same_v<Last, CK_ULONG*> &&
                  !std::is_function_v<std::remove_pointer_t<Room>>) {
      const bool isHandle = function == FunctionId::C_GenerateKeyPair ||
                            (std::is_integral_v<Room> && function != FunctionId::C_FindObjects);
      return isHandle ? nullptr : std::get<count - 1>(arguments);
    }
  }
  return nullptr;
}

// The room that goes with it: as much as is said, or, where only the length is asked for, anything
// that could be one.
template <typename... Parameters>
CK_ULONG roomOf(CK_ULONG announced, const std::tuple<Parameters...>& arguments) {
  constexpr CK_ULONG anything = CK_ULONG{1} << 26;
  if constexpr (sizeof...(Parameters) >= 3) {
    const auto room = std::get<sizeof...(Parameters) - 2>(arguments);
    if constexpr (std::is_integral_v<decltype(room)>) return static_cast<CK_ULONG>(room);
    if constexpr (std::is_pointer_v<decltype(room)>) return room == nullptr ? anything : announced;
  }
  return anything;
}

template <typename... Parameters>
CK_RV callModule(FunctionId id, CK_RV (*function)(Parameters...), Parameters... arguments) {
  (requireGuarded(id, arguments), ...);
  const std::tuple<Parameters...> all(arguments...);
  const CK_ULONG* const length = lengthOf(id, all);
  const CK_ULONG room = roomOf(length == nullptr ? 0 : *length, all);
  Caller& caller = Caller::current();
  caller.begin(numberOf(id));
  CK_RV value = 0;
  try {
    value = function(arguments...);
  } catch (...) {
    caller.end();
    endAfterException(id);
  }
  caller.end();
  caller.returned(id, value);
  if (value == CKR_OK && length != nullptr && *length > room) {
    throw CallEnded{CallEnded::Why::nonsense, id};
  }
  return value;
}

// An entry of either list.
template <typename List, typename... Parameters>
struct ModuleFunction {
  using Pointer = CK_RV (*)(Parameters...);

  constexpr ModuleFunction(FunctionId functionId, Pointer List::*listEntry)
      : id(functionId), entry(listEntry) {}

  // Null where the module has none.
  Pointer pointer() const {
    if constexpr (std::is_same_v<List, FunctionList3>) {
      return functionLists.list3 == nullptr ? nullptr : functionLists.list3->*entry;
    } else {
      return functionLists.list2 == nullptr ? nullptr : functionLists.list2->*entry;
    }
  }

  CK_RV operator()(Parameters... arguments) const {
    const Pointer function = pointer();
    if (function == nullptr) endWithoutFunction(id);
    return callModule(id, function, arguments...);
  }

  FunctionId id;
  Pointer List::*entry;
};

template <typename List, typename... Parameters>
ModuleFunction(FunctionId, CK_RV (*List::*)(Parameters...)) -> ModuleFunction<List, Parameters...>;

namespace p11 {

#define KESTREL_FUNCTION(name) \
  inline constexpr ModuleFunction name(FunctionId::name, &CK_FUNCTION_LIST::name);
KESTREL_PKCS11_FUNCTIONS(KESTREL_FUNCTION, KESTREL_FUNCTION)
#undef KESTREL_FUNCTION

#define KESTREL_FUNCTION(name) \
  inline constexpr ModuleFunction name(FunctionId::name, &FunctionList3::name);
KESTREL_PKCS11_FUNCTIONS_3_0(KESTREL_FUNCTION, KESTREL_FUNCTION)
#undef KESTREL_FUNCTION

}  // namespace p11

}  // namespace kestrel::probe
