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

// Writes label, number and line end in one piece. Two threads do so at once, and the state of
// std::cout is not theirs to share: this goes to the buffer below it.
void writeLine(std::string_view label, std::uint64_t number, int base) {
  std::array<char, 64> line;
  char* end = std::copy(label.begin(), label.end(), line.data());
  end = std::to_chars(end, line.data() + line.size() - 1, number, base).ptr;
  *end++ = '\n';
  std::fwrite(line.data(), 1, static_cast<std::size_t>(end - line.data()), stdout);
}

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
      writeLine("C_WaitForSlotEvent == ", result, base);
      endProgram(1);
    }
    sleepOutPeriod(start);
    writeLine("Wait : ", calls, base);
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
      if (result != CKR_OK) {
        writeLine("C_GetSlotInfo == ", result, base);
        endProgram(1);
      }
    }
    writeLine("C_GetSlotInfo : ", passes, base);
  }
}
