// What the process that runs the checks shares with the one that started it: enough to say where it
// was when it ended. Lies in memory of both and holds no secret. A module may write over it: the
// reader bounds what he reads, and there is no pointer in it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

#include "harness/Pkcs11.h"
#include "probe/Functions.h"
#include "probe/Memory.h"

namespace kestrel::probe {

// The mechanisms of a token, as many as anybody has met and many more.
inline constexpr std::size_t maxMechanisms = 1024;

struct ListedMechanism {
  CK_MECHANISM_TYPE type = 0;
  CK_MECHANISM_INFO info = {};
  CK_RV infoResult = 0;  // of C_GetMechanismInfo
};

// What the module and its token say of themselves, read once.
struct TokenFacts {
  CK_SLOT_ID slot = 0;
  std::array<char, 33> label = {};  // without the padding
  CK_FLAGS flags = 0;               // of CK_TOKEN_INFO
  CK_VERSION version = {};          // of PKCS #11, as C_GetInfo has it
  bool known = false;               // all but the mechanisms, which a module may fail to list
  bool mechanismsKnown = false;
  bool readOnly = false;  // no session may write
  std::array<bool, functionCount> offered = {};
  std::size_t mechanismCount = 0;
  std::array<ListedMechanism, maxMechanisms> mechanisms = {};

  // Null for a mechanism that is not listed.
  const ListedMechanism* find(CK_MECHANISM_TYPE type) const;
  bool lists(CK_MECHANISM_TYPE type, CK_FLAGS flag) const;
  bool wantsLogin() const { return (flags & CKF_LOGIN_REQUIRED) != 0; }
};

// A return value that a function does not have.
struct OddReturn {
  FunctionId function = FunctionId::count;
  CK_RV value = 0;
  std::array<char, 100> check = {};  // the path of the one in which it was first seen, or its start
};

// A call under way: a function's number plus one, or the loader. 0 for none.
using CallNumber = std::uint32_t;
inline constexpr CallNumber noCall = 0;
inline constexpr CallNumber loaderCall = functionCount + 1;
constexpr CallNumber numberOf(FunctionId id) {
  return static_cast<CallNumber>(id) + 1;
}
// Null for none, and for what is no number.
const char* callName(CallNumber number);

enum class LoginState { none, underway, proven, refused };

struct Board {
  static constexpr std::size_t maxThreads = 64;
  static constexpr std::size_t maxOdd = 256;

  std::array<char, 100> check = {};     // the path of the one that is running, or its start
  std::atomic<bool> settingUp = false;  // its stage is still being reached
  std::array<std::atomic<CallNumber>, maxThreads> calls = {};  // under way, by thread
  std::array<std::atomic<bool>, functionCount> called = {};

  // A fault of the thread that met it first.
  std::atomic<bool> faulted = false;
  CallNumber faultCall = noCall;
  Memory::Place faultPlace = Memory::Place::elsewhere;
  bool faultWrites = false;

  std::atomic<LoginState> login = LoginState::none;
  CK_RV loginResult = 0;
  std::atomic<bool> contextLoginRefused = false;  // or it is under way

  std::atomic<std::uint32_t> oddCount = 0;
  std::array<OddReturn, maxOdd> odd = {};

  std::atomic<std::uint64_t> objectsBefore = 0;

  TokenFacts facts;

  // The call under way: of the first thread, else of any; null for none.
  CallNumber callUnderWay() const;

  void beginCheck(std::string_view path);

  // Notes a value that is not in the function's list, once.
  void noteOddReturn(FunctionId function, CK_RV value);

  // For a new process: nothing is under way and nothing has happened to it.
  void beginProcess();
};

// A board in shared memory. Throws std::system_error.
Board& makeBoard();

}  // namespace kestrel::probe
