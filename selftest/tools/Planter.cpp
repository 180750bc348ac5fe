// A module in between that plants one fault: PLANT=KIND:FUNCTION, and PLANT_MODULE is the module
// behind. What the kinds are stands in the table at the end. kestrel-probe is run on it to see
// each of its checks fail.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <type_traits>

#include "harness/Pkcs11.h"
#include "probe/Functions.h"

namespace {

CK_FUNCTION_LIST* inner = nullptr;
std::string plantedKind, plantedFunction;
std::function<CK_RV()> beginAgain;  // the last C_...Init that went well

// The last argument as a length, a count or a handle that comes back; null for other functions.
template <typename... Parameters>
CK_ULONG* outcome(const std::tuple<Parameters...>& arguments) {
  if constexpr (sizeof...(Parameters) > 1) {
    const auto last = std::get<sizeof...(Parameters) - 1>(arguments);
    if constexpr (std::is_same_v<decltype(last), CK_ULONG* const>) return last;
  }
  return nullptr;
}

// What stands before a length: the room for bytes or items, and how large each is.
struct Room {
  unsigned char* begin = nullptr;
  std::size_t itemSize = 1;
};

template <typename... Parameters>
Room roomOf(const std::tuple<Parameters...>& arguments) {
  if constexpr (sizeof...(Parameters) > 2) {
    const auto room = std::get<sizeof...(Parameters) - 2>(arguments);
    if constexpr (std::is_pointer_v<decltype(room)> &&
                  std::is_integral_v<std::remove_pointer_t<decltype(room)>>) {
      return {reinterpret_cast<unsigned char*>(room), sizeof *room};
    }
  }
  return {};
}

// The first bytes with a length behind them: data that a module may only read.
template <typename... Parameters>
Room dataOf(const std::tuple<Parameters...>& arguments, CK_ULONG& length) {
  Room data;
  const auto look = [&](auto first, auto second) {
    if constexpr (std::is_same_v<decltype(first), unsigned char*> &&
                  std::is_same_v<decltype(second), unsigned long>) {
      if (data.begin == nullptr && first != nullptr && second > 0) {
        data.begin = first;
        length = second;
      }
    }
  };
  [&]<std::size_t... at>(std::index_sequence<at...>) {
    if constexpr (sizeof...(Parameters) > 1) {
      (look(std::get<at>(arguments), std::get<at + 1>(arguments)), ...);
    }
  }
  (std::make_index_sequence<sizeof...(Parameters) - 1>());
  return data;
}

template <typename... Parameters>
CK_ATTRIBUTE* attributesOf(const std::tuple<Parameters...>& arguments) {
  CK_ATTRIBUTE* found = nullptr;
  std::apply(
      [&](auto... argument) {
        const auto look = [&](auto value) {
          if constexpr (std::is_same_v<decltype(value), CK_ATTRIBUTE*>) found = value;
        };
        (look(argument), ...);
      },
      arguments);
  return found;
}

// One call: what went in, what came back, and how to make it again.
struct Call {
  CK_RV result = 0;
  CK_ULONG* outcome = nullptr;
  Room room;
  CK_ULONG announced = 0;  // items
  Room data;
  CK_ULONG dataLength = 0;
  CK_ATTRIBUTE* attributes = nullptr;
};

struct Kind {
  const char* name;
  void (*before)(Call&);
  void (*after)(Call&);
};

void nothing(Call&) {}

void touchPast(Call& call) {
  if (call.room.begin != nullptr) call.room.begin[call.announced * call.room.itemSize] = 1;
}

const Kind kinds[] = {
    // Values that no situation has these functions return, and the two that hide a fault.
    {"ok", nothing, [](Call& call) { call.result = CKR_OK; }},
    {"fails", nothing, [](Call& call) { call.result = CKR_DEVICE_REMOVED; }},
    {"odd", nothing, [](Call& call) { call.result = 0x7ffffff1; }},
    // The result itself.
    {"flip", nothing,
     [](Call& call) {
       if (call.result != CKR_OK) return;
       if (call.room.begin != nullptr && *call.outcome > 0) call.room.begin[0] ^= 1;
       if (call.attributes != nullptr && call.attributes->pValue != nullptr &&
           call.attributes->ulValueLen > 0 && call.outcome == nullptr) {
         *static_cast<unsigned char*>(call.attributes->pValue) ^= 1;
       }
     }},
    {"longer", nothing,
     [](Call& call) {
       if (call.outcome != nullptr) ++*call.outcome;
     }},
    {"shorter", nothing,
     [](Call& call) {
       if (call.outcome != nullptr && *call.outcome > 0) --*call.outcome;
     }},
    // Bytes in spite of an error.
    {"leaks", nothing,
     [](Call& call) {
       if (call.result != CKR_OK && call.room.begin != nullptr) call.room.begin[0] ^= 1;
     }},
    // Memory.
    {"past", nothing, touchPast},
    {"before", nothing,
     [](Call& call) {
       if (call.room.begin != nullptr) call.room.begin[-1] ^= 1;
     }},
    {"input", nothing,
     [](Call& call) {
       if (call.data.begin != nullptr) call.data.begin[0] ^= 1;
     }},
    // An error that ends nothing.
    {"lives", nothing,
     [](Call& call) {
       if (call.result != CKR_OK && call.result != CKR_BUFFER_TOO_SMALL && beginAgain) beginAgain();
     }},
    // One that ends what goes on.
    {"crash", [](Call&) { std::abort(); }, nothing},
};

const Kind* planted = nullptr;

template <kestrel::probe::FunctionId id, auto entry>
struct Wrapper;

template <kestrel::probe::FunctionId id, typename... Parameters,
          CK_RV (*CK_FUNCTION_LIST::*entry)(Parameters...)>
struct Wrapper<id, entry> {
  static CK_RV call(Parameters... parameters) {
    const std::string name = nameOf(id);
    const auto ask = [=] { return (inner->*entry)(parameters...); };
    if (name != plantedFunction) {
      const CK_RV result = ask();
      if (name.ends_with("Init") && result == CKR_OK) beginAgain = ask;
      return result;
    }
    const std::tuple<Parameters...> arguments(parameters...);
    Call call;
    call.outcome = outcome(arguments);
    call.room = roomOf(arguments);
    call.announced = call.outcome == nullptr ? 0 : *call.outcome;
    call.data = dataOf(arguments, call.dataLength);
    call.attributes = attributesOf(arguments);
    if constexpr (id == kestrel::probe::FunctionId::C_GetAttributeValue) {
      call.outcome = &call.attributes->ulValueLen;
      call.room.begin = static_cast<unsigned char*>(call.attributes->pValue);
      call.announced = call.attributes->ulValueLen;
    }
    planted->before(call);
    call.result = ask();
    planted->after(call);
    return call.result;
  }
};

CK_FUNCTION_LIST wrap(const CK_FUNCTION_LIST& list) {
  CK_FUNCTION_LIST wrapped = list;
  using enum kestrel::probe::FunctionId;
#define WRAP(name) wrapped.name = Wrapper<name, &CK_FUNCTION_LIST::name>::call;
  KESTREL_PKCS11_FUNCTIONS(WRAP, WRAP)
#undef WRAP
  return wrapped;
}

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST wrapped;
  const std::string plant = environment("PLANT");
  const std::size_t colon = plant.find(':');
  plantedKind = plant.substr(0, colon);
  plantedFunction = colon == std::string::npos ? "" : plant.substr(colon + 1);
  for (const Kind& kind : kinds) {
    if (plantedKind == kind.name) planted = &kind;
  }
  if (planted == nullptr) plantedFunction.clear();
  void* const module = dlopen(environment("PLANT_MODULE").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) return CKR_GENERAL_ERROR;
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
  const CK_RV result = entry(&inner);
  if (result != CKR_OK) return result;
  wrapped = wrap(*inner);
  *list = &wrapped;
  return CKR_OK;
}
