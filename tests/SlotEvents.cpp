// dontBlockTest: slot events with and without blocking, while the operator moves the card as told.
// waitTest: one thread polls for slot events while the other asks for slot infos without a pause;
// the operator sees a line per round of each and ends it with an interrupt.
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string_view>
#include <thread>

#include "harness/Report.h"
#include "harness/Signals.h"
#include "harness/TestManager.h"

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

// The base in which standard output writes integers at the moment.
int streamBase() {
  return (std::cout.flags() & std::ios::basefield) == std::ios::hex ? 16 : 10;
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

  // To the buffer below std::cout, whose state is not the threads' to share.
  void write() const { std::fwrite(text_.data(), 1, length_, stdout); }

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

[[noreturn]] void slotEventPoller(CK_FUNCTION_LIST* functions, int base) {
  useSignalStack();
  for (unsigned calls = 1;; ++calls) {
    const auto start = std::chrono::system_clock::now();
    CK_SLOT_ID slot = 1;
    const CK_RV result = callModule("C_WaitForSlotEvent",
                                    functions == nullptr ? nullptr : functions->C_WaitForSlotEvent,
                                    CKF_DONT_BLOCK, &slot, nullptr);
    if (result != CKR_OK && result != CKR_NO_EVENT) {
      endProgram(1, NumberLine("C_WaitForSlotEvent == ", result, base).view());
    }
    sleepOutPeriod(start);
    NumberLine("Wait : ", calls, base).write();
  }
}

}  // namespace

CK_RV TestManager::dontBlockTest() {
  CK_SLOT_ID slot = 0;
  std::cout << "Have card inserted" << std::endl;
  for (const EventStep& step : eventScript) {
    std::cout << step.instruction << std::endl;
    const CK_RV result = p11::C_WaitForSlotEvent(step.flags, &slot, nullptr);
    requireResult(step.label, result, step.expected);
    if (step.expected == CKR_OK) std::cout << "Slot: " << slot << std::endl;
    if (&step != &eventScript.back()) std::cout << "\n";
  }
  return CKR_OK;
}

void TestManager::waitTest() {
  const int base = streamBase();
  expectSecondThread();
  // Neither joined nor detached, and never destroyed: this function does not return.
  const std::thread poller(slotEventPoller, functionList, base);
  populateSlotList();
  CK_SLOT_INFO info{};
  for (unsigned passes = 1;; ++passes) {
    for (const CK_SLOT_ID slot : slots()) {
      const CK_RV result = p11::C_GetSlotInfo(slot, &info);
      if (result != CKR_OK) endProgram(1, NumberLine("C_GetSlotInfo == ", result, base).view());
    }
    NumberLine("C_GetSlotInfo : ", passes, base).write();
  }
}
