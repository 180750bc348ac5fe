// The trace: a file with a line for each call, in the order in which the calls began.
//
//   C_SignInit(session=1, mechanism=CKM_RSA_PKCS_PSS(hash=CKM_SHA256 mgf=2 salt=-1), key=3)
//       = CKR_MECHANISM_PARAM_INVALID 0x71 <12 us>            (all on one line)
//   C_Sign(session=1, data=[0], signature=null[512]) = CKR_OK 0x0 <31 us> signature=[256]
//       waived=length-query
//
// Behind the time stand the counts, lengths and handles that came back, the waiver that stepped in,
// and "thread=N" for a call of another thread than the first. A line is there before its call
// begins, with "<unfinished ...>" in the place of the result: a call that never returned is seen.
// Of a PIN only the length is ever read. At 16 MiB the trace ends, and says so on standard error.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <span>
#include <string_view>

#include "harness/Pkcs11.h"

// One argument of a call, as far as a line shows it.
struct TracedArgument {
  enum class Kind { number, bytes, count, mechanism, attributes, address };

  TracedArgument(CK_ULONG value) : kind(Kind::number), number(value) {}
  TracedArgument(CK_BYTE value) : kind(Kind::number), number(value) {}
  TracedArgument(const CK_BYTE* bytes) : kind(Kind::bytes), pointer(bytes) {}
  TracedArgument(const CK_ULONG* count) : kind(Kind::count), pointer(count) {}
  TracedArgument(const CK_MECHANISM* mechanism) : kind(Kind::mechanism), pointer(mechanism) {}
  TracedArgument(const CK_ATTRIBUTE* attributes) : kind(Kind::attributes), pointer(attributes) {}
  TracedArgument(const void* address) : kind(Kind::address), pointer(address) {}
  TracedArgument(CK_NOTIFY callback)
      : kind(Kind::address), pointer(reinterpret_cast<const void*>(callback)) {}

  Kind kind;
  const void* pointer = nullptr;
  CK_ULONG number = 0;
};

// A line in the making; what does not fit is left out.
class TraceText {
 public:
  TraceText& operator<<(std::string_view text);
  TraceText& operator<<(CK_ULONG number);
  TraceText& hexadecimal(CK_ULONG number);
  TraceText& hexadecimal(const void* bytes, CK_ULONG length);
  std::string_view view() const { return {text_.data(), length_}; }

 private:
  std::array<char, 1024> text_;
  std::size_t length_ = 0;
};

// The file. Any thread may write to it; nothing is locked while the module runs.
class Trace {
 public:
  Trace() = default;
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Goes on behind what the file holds. Throws std::runtime_error.
  void open(const char* path);

  bool isOpen() const { return file_ >= 0; }

  // A call's line, whose last part is written when the call returns.
  struct Place {
    off_t start = 0;
    off_t head = 0, length = 0;  // bytes that stay, and all of them
  };
  Place begin(std::string_view head);
  void end(const Place& place, std::string_view result);

 private:
  void write(std::string_view text, off_t position);

  std::mutex mutex_;
  int file_ = -1;
  off_t end_ = 0;
  bool full_ = false;  // it could not be written to; said once
};

// The first attributes of a template, as the caller gave them: the module may write to his.
using GivenAttributes = std::array<CK_ATTRIBUTE, 16>;

// One call, from its begin to its result.
class TracedCall {
 public:
  TracedCall(Trace& trace, const char* name, const char* words,
             std::span<const TracedArgument> arguments);

  // The call has returned. Not called when an exception leaves the module.
  void returned(CK_RV result);

  // What steps in for the refused call of this thread that is under way.
  static thread_local const char* waiver;

 private:
  Trace& trace_;
  const char* words_;
  std::span<const TracedArgument> arguments_;
  GivenAttributes asked_{};  // where the call asks for attributes
  Trace::Place place_;
  std::chrono::steady_clock::time_point start_;
};
