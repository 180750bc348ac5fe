#include "probe/Calls.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "probe/Returns.h"

namespace kestrel::probe {

FunctionLists functionLists;

namespace {

// All of this process: a module's own thread may meet the fault.
std::array<std::atomic<Caller*>, Board::maxThreads> callers;
thread_local Caller* ownCaller = nullptr;

std::size_t takePlace(Caller* caller) {
  for (std::size_t i = 0; i < callers.size(); ++i) {
    Caller* nobody = nullptr;
    if (callers[i].compare_exchange_strong(nobody, caller)) return i;
  }
  throw std::runtime_error("too many threads");
}

}  // namespace

Caller::Caller(Board& board) : board_(board), call_(board.calls[takePlace(this)]) {
  ownCaller = this;
}

Caller::~Caller() {
  for (auto& each : callers) {
    if (each.load() == this) each = nullptr;
  }
  ownCaller = nullptr;
}

Caller& Caller::current() {
  return *ownCaller;
}

void Caller::begin(CallNumber number) {
  if (number <= functionCount) {
    board_.called[number - 1].store(true, std::memory_order_relaxed);
  }
  call_.store(number, std::memory_order_relaxed);
}

void Caller::end() {
  call_.store(noCall, std::memory_order_relaxed);
}

void Caller::returned(FunctionId function, CK_RV value) {
  lastFunction = function;
  lastValue = value;
  ++callCount;
  if (listingOf(function, value, board_.facts.version.major >= 3) != Listing::listed) {
    board_.noteOddReturn(function, value);
  }
  if (!memory.isWhole()) throw CallEnded{CallEnded::Why::damage, function};
}

CallNumber Caller::callOfThisThread() {
  const Caller* const caller = ownCaller != nullptr ? ownCaller : callers[0].load();
  return caller == nullptr ? noCall : caller->call_.load();
}

Memory::Place Caller::placeOf(const void* address) {
  for (const auto& each : callers) {
    const Caller* const caller = each.load();
    if (caller == nullptr) continue;
    const Memory::Place place = caller->memory.placeOf(address);
    if (place != Memory::Place::elsewhere) return place;
  }
  return Memory::Place::elsewhere;
}

void endWithoutFunction(FunctionId function) {
  throw CallEnded{CallEnded::Why::noFunction, function};
}

void endAfterException(FunctionId function) {
  throw CallEnded{CallEnded::Why::exception, function};
}

void refuseUnguarded(FunctionId function) {
  throw std::logic_error(std::string(nameOf(function)) + " was given memory that is not guarded");
}

}  // namespace kestrel::probe
