// A second process for the checks that need one. It is forked before the worker loads the module:
// a fork of a process with a module in it is a state of its own, and not what they are about.
#pragma once

#include <sys/types.h>

#include <array>
#include <functional>

#include "common/Descriptor.h"
#include "probe/Check.h"
#include "probe/Outside.h"
#include "probe/Record.h"

namespace kestrel::probe {

class Companion {
 public:
  // What it is asked for, by the number of the check that asks.
  struct Request {
    std::uint32_t check = 0;
    std::uint32_t length = 0;
    std::array<char, 200> message = {};

    View text() const { return {message.data(), std::min<std::size_t>(length, message.size())}; }
  };

  // Forks a process that waits for a request, does `serve` and ends. Throws std::system_error.
  explicit Companion(const std::function<Record(const Request&)>& serve);
  ~Companion();  // it has ended
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;

  // Once. When that process dies, this one dies as it did: who supervises it knows what to make of
  // that.
  Record ask(std::uint32_t check, View message);

 private:
  [[noreturn]] void dieAlike();

  pid_t process_ = -1;
  Descriptor requests_, replies_;
};

}  // namespace kestrel::probe
