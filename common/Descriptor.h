// File descriptors: the owner of one, and the three that every program has.
#pragma once

#include <unistd.h>

#include <utility>

namespace kestrel {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return number_; }  // -1 for none
  void reset() {
    if (number_ >= 0) close(std::exchange(number_, -1));
  }

 private:
  int number_ = -1;
};

// To be called first of all. Opens a closed standard stream to nothing: it must not become the
// number of a pipe.
void openStandardStreams();

}  // namespace kestrel
