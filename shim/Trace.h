// The trace: a file with a line for each call, in the order in which the calls began.
//
//   C_SignInit(session=1, mechanism=CKM_RSA_PKCS_PSS(hash=CKM_SHA256 mgf=2 salt=-1), key=3)
//       = CKR_MECHANISM_PARAM_INVALID 0x71 <12 us>            (all on one line)
//   C_Sign(session=1, data=null[0], signature=null[&]) = CKR_OK 0x0 <31 us> waived=length-query
//       signature=[256]
//
// A line is there before its call begins, with "<unfinished ...>" in the place of the result: a
// call that never returned is seen. What it says is shim/TracedCall.h's. At 16 MiB the trace ends,
// and says so on standard error.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string_view>

// The file. Any thread of the process that opened it may write to it, no child of its; nothing is
// locked while the module runs.
class Trace {
 public:
  Trace() = default;
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  // Goes on behind what the file holds. Throws std::runtime_error.
  void open(const char* path);

  // Is there a trace, and is it this process's?
  bool isOpen() const;

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
  pid_t owner_ = 0;
  off_t end_ = 0;
  bool full_ = false;  // it could not be written to; said once
};
