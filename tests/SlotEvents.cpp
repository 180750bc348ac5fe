// dontBlockTest: slot events with and without blocking, while the operator moves the card as told.
// waitTest: one thread polls for slot events while the other asks for slot infos without a pause;
// the operator sees a line per round of each and ends it with an interrupt.
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <string_view>
#include <thread>

#include "harness/Report.h"
#include "harness/Signals.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

struct EventStep {
  const char* instruction;
  CK_FLAGS flags;
  const char* label;
  CK_RV expected = CKR_OK;
};

// The third label shortens the function's name: reports of all releases read so.
constexpr std::array<EventStep, 4> eventScript{{
    {"Should return instantly", CKF_DONT_BLOCK, "C_WaitForSlotEvent(CKF_DONT_BLOCK) == CKR_OK"},
    {"Wait a few seconds then remove card", 0, "C_WaitForSlotEvent blocking == CKR_OK"},
    {"Next call should return instantly with CKR_NO_EVENT", CKF_DONT_BLOCK,
     "C_WaitForSlot(CKF_DONT_BLOCK) == CKR_NO_EVENT", CKR_NO_EVENT},
    {"Wait a few seconds then insert card", 0, "C_WaitForSlotEvent blocking == CKR_OK"},
}};

constexpr std::chrono::milliseconds pollPeriod{250};

// The base in which the report writes integers at the moment.
int streamBase() {
  return (report.flags() & std::ios::basefield) == std::ios::hex ? 16 : 10;
}

// A label, a number and the line end, to be written in one piece: two threads write at once.
class NumberLine {
 public:
  NumberLine(std::string_view label, std::uint64_t number, int base) {
    char* end = std::copy(label.begin(), label.end(), text_.data());
    end = std::to_chars(end, text_.data() + text_.size() - 1, number, base).ptr;
    *end++ = '\n';
    length_ = static_cast<std::size_t>(end - text_.data());
  }

  std::string_view view() const { return {text_.data(), length_}; }

 private:
  std::array<char, 64> text_;
  std::size_t length_;
};

// Counts from `start`. A clock that was set back in the meantime does not lengthen the period.
void sleepOutPeriod(std::chrono::system_clock::time_point start) {
  using std::chrono::milliseconds;
  const auto elapsed =
      std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now() - start);
  std::this_thread::sleep_for(pollPeriod - std::clamp(elapsed, milliseconds(0), pollPeriod));
}

[[noreturn]] void slotEventPoller(int base) {
  useSignalStack();
  for (unsigned calls = 1;; ++calls) {
    const auto start = std::chrono::system_clock::now();
    CK_SLOT_ID slot = 1;
    const CK_RV result = p11::C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr);
    if (result != CKR_OK && result != CKR_NO_EVENT) {
      endProgram(1, NumberLine("C_WaitForSlotEvent == ", result, base).view());
    }
    sleepOutPeriod(start);
    writeReport(NumberLine("Wait : ", calls, base).view());
    flushReport();
  }
}

}  // namespace

CK_RV TestManager::dontBlockTest() {
  CK_SLOT_ID slot = 0;
  report << "Have card inserted" << std::endl;
  for (const EventStep& step : eventScript) {
    report << step.instruction << std::endl;
    const CK_RV result = p11::C_WaitForSlotEvent(step.flags, &slot, nullptr);
    requireResult(step.label, result, step.expected);
    if (step.expected == CKR_OK) report << "Slot: " << slot << std::endl;
    if (&step != &eventScript.back()) report << "\n";
  }
  return CKR_OK;
}

void TestManager::waitTest() {
  const int base = streamBase();
  expectInterrupt();
  expectSecondThread();
  // Neither joined nor detached, and never destroyed: this function does not return.
  const std::thread poller(slotEventPoller, base);
  populateSlotList();
  batchReport();
  CK_SLOT_INFO info{};
  for (unsigned passes = 1;; ++passes) {
    for (const CK_SLOT_ID slot : slots()) {
      const CK_RV result = p11::C_GetSlotInfo(slot, &info);
      if (result != CKR_OK) endProgram(1, NumberLine("C_GetSlotInfo == ", result, base).view());
    }
    writeReport(NumberLine("C_GetSlotInfo : ", passes, base).view());
  }
}

}  // namespace kestrel
