// The standard streams as the process got them.
#pragma once

#include <sys/types.h>
#include <unistd.h>

namespace kestrel {

// Finds one of the three again, whatever the module closed or opened: at its own number, or by a
// duplicate above the numbers that modules get. A file that took either number is not it. For
// handlers too.
class StandardStream {
 public:
  explicit constexpr StandardStream(int number) : number_(number) {}

  // To be called before any foreign code runs, on an open stream. Without it the stream is what has
  // its number.
  void recognise();
  // The same, and a module that takes its number does not get the stream with it.
  void keep();

  // Where it is now; -1, which every system call refuses, when it is nowhere.
  int descriptor() const;

 private:
  bool isAt(int descriptor) const;

  int number_;
  int duplicate_ = -1;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool known_ = false;
};

// Not kept: whoever feeds kestrel its PINs sees by what it reads from that it waits for one.
inline constinit StandardStream standardInput(STDIN_FILENO);
inline constinit StandardStream standardOutput(STDOUT_FILENO);
inline constinit StandardStream standardError(STDERR_FILENO);

}  // namespace kestrel
