// The signals by which an operator or the machine ends kestrel-run.
#pragma once

#include "common/Descriptor.h"

namespace kestrel {

// While it lives SIGINT, SIGTERM, SIGHUP and SIGQUIT are events of a descriptor and end nothing by
// themselves, so that the running test can be ended in order and the files written. One that was
// ignored, as nohup has it, stays ignored. One object, made before any process is started.
class Interrupt {
 public:
  Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  int descriptor() const { return descriptor_.get(); }  // readable when one has arrived

  // How many have arrived until now.
  int count();

 private:
  Descriptor descriptor_;
  int count_ = 0;
};

}  // namespace kestrel
