// A call as its line of the trace has it: arguments before the call, and behind the result what
// came back (handles, counts, lengths, an object's class, ID and label), which waivers stepped in,
// and "thread=N" for a call of another thread than the first.
//
// What an argument points to is shown only where the caller is to have put it there: whatever
// stands in a variable that the module is to fill is the caller's own, and may be a PIN. So before
// the call such an argument is "&", a length without a buffer too; what came back is shown where
// the call passed, lengths and counts also where the room was too small. Of a PIN only the length
// is ever read. An address that cannot be read is "&" as well, and the module's to meet.
#pragma once

#include <array>
#include <chrono>
#include <span>

#include "harness/Pkcs11.h"
#include "shim/Settings.h"
#include "shim/Trace.h"
#include "shim/TracedItem.h"

// The begin of what somebody's pointer points to.
using TracedBytes = std::array<CK_BYTE, 64>;

// The first attributes of a template, in a copy of ours.
struct TracedTemplate {
  std::array<CK_ATTRIBUTE, 16> attributes{};
  std::array<TracedBytes, 16> values;  // of those that are to be filled and shown
  std::size_t count = 0;

  std::span<const CK_ATTRIBUTE> view() const { return {attributes.data(), count}; }
};

// One call, from its begin to its result.
class TracedCall {
 public:
  TracedCall(Trace& trace, const char* name, const char* words,
             std::span<const TracedArgument> arguments);

  // The call has returned. Not called when an exception leaves the module.
  void returned(CK_RV result);

  // What has stepped in for the refused call of this thread that is under way.
  static thread_local WaiverSet waived;

 private:
  Trace& trace_;
  const char* words_;
  std::span<const TracedArgument> arguments_;
  TracedTemplate asked_;              // the attributes that the call asks for
  std::array<CK_ULONG, 2> before_{};  // what stood where counts and handles are to come
  Trace::Place place_;
  std::chrono::steady_clock::time_point start_;
};
