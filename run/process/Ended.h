// What is left of a process: all that a judge of it has to go by.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

// How a process ended, and what it wrote.
struct Ended {
  enum class By { itself, timeLimit, reportLimit, interrupt, lackOfPin };
  By by = By::itself;
  int status = 0;                   // as waitpid() gives it
  double seconds = 0, silence = 0;  // in all, and from the last output to the end or the interrupt
  std::string report, errors;       // standard output and standard error
  bool cut = false;                 // either was longer than is kept
  std::string reason;               // for the lack of a PIN
  std::vector<std::uint64_t> answered;  // positions whose PIN was handed over, in order
};

// Bytes that are kept of a report, and as many of standard error.
inline constexpr std::size_t reportLimit = std::size_t{16} << 20;

}  // namespace kestrel
