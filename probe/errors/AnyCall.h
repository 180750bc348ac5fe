// A call of any function, with arguments that are fine as far as their types tell.
#pragma once

#include <tuple>

#include "probe/Bench.h"

namespace kestrel::probe {

// Nothing that is read or written goes beyond these. As a number 1 is a handle, a count, a length
// and CKF_DONT_BLOCK.
inline constexpr std::size_t anyRoom = 64;

template <typename Argument>
Argument anyArgument(Memory& memory) {
  if constexpr (std::is_integral_v<Argument>) {
    return 1;
  } else if constexpr (std::is_same_v<Argument, void*> || std::is_same_v<Argument, CK_NOTIFY>) {
    return nullptr;
  } else if constexpr (std::is_same_v<Argument, CK_MECHANISM*>) {
    return memory.in(CK_MECHANISM{CKM_SHA256, nullptr, 0});
  } else if constexpr (std::is_same_v<Argument, CK_ATTRIBUTE*>) {
    return memory.out(CK_ATTRIBUTE{CKA_LABEL, nullptr, 0});
  } else if constexpr (std::is_same_v<Argument, CK_BYTE*>) {
    return memory.bytes(anyRoom);
  } else if constexpr (std::is_same_v<Argument, CK_ULONG*>) {
    return memory.out<CK_ULONG>(anyRoom, anyRoom);
  } else {
    return memory.out(std::remove_pointer_t<Argument>{});
  }
}

// `first` is the session, or the first number of a function without one.
template <typename List, typename... Parameters>
CK_RV callAnyhow(Bench& bench, const ModuleFunction<List, Parameters...>& function,
                 CK_ULONG first) {
  std::tuple<Parameters...> arguments{anyArgument<Parameters>(bench.memory)...};
  using First = std::tuple_element_t<0, std::tuple<Parameters...>>;
  if constexpr (std::is_same_v<First, CK_ULONG>) std::get<0>(arguments) = first;
  return std::apply(function, arguments);
}

}  // namespace kestrel::probe
