#include "probe/Board.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

namespace kestrel::probe {

const ListedMechanism* TokenFacts::find(CK_MECHANISM_TYPE type) const {
  const auto* const end = mechanisms.begin() + mechanismCount;
  const auto* const found = std::find_if(
      mechanisms.begin(), end, [type](const ListedMechanism& one) { return one.type == type; });
  return found == end ? nullptr : found;
}

bool TokenFacts::lists(CK_MECHANISM_TYPE type, CK_FLAGS flag) const {
  const ListedMechanism* const found = find(type);
  return found != nullptr && found->infoResult == CKR_OK && (found->info.flags & flag) == flag;
}

const char* callName(CallNumber number) {
  if (number == loaderCall) return "dlopen";
  return number == noCall || number > functionCount ? nullptr : functionRows[number - 1].name;
}

CallNumber Board::callUnderWay() const {
  for (const auto& call : calls) {
    if (call.load() != noCall) return call.load();
  }
  return noCall;
}

void Board::beginCheck(std::string_view path) {
  check.fill('\0');
  std::copy_n(path.begin(), std::min(path.size(), check.size() - 1), check.begin());
}

void Board::noteOddReturn(FunctionId function, CK_RV value) {
  const std::uint32_t noted = oddCount.load();
  const auto isKnown = [&](const OddReturn& one) {
    return one.function == function && one.value == value;
  };
  if (noted >= maxOdd || std::any_of(odd.begin(), odd.begin() + noted, isKnown)) return;
  const std::uint32_t place = oddCount.fetch_add(1);
  if (place < maxOdd) odd[place] = {function, value, check};
}

void Board::beginProcess() {
  for (auto& call : calls) call = noCall;
  settingUp = false;
  faulted = false;
  faultCall = noCall;
}

Board& makeBoard() {
  void* const memory =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  return *new (memory) Board;
}

}  // namespace kestrel::probe
