// One process, from its start to the end of everything that it started.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "run/Interrupt.h"
#include "run/Pins.h"
#include "run/Terminal.h"

// A folder of its own under the system's for temporary files, gone with all that is in it when the
// object goes. Nothing behind a link in it is touched.
class TemporaryFolder {
 public:
  TemporaryFolder();  // throws std::system_error
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct Command {
  std::filesystem::path program;
  std::vector<std::string> arguments;         // without the program's name
  std::filesystem::path folder;               // to run in; empty for the current one
  std::vector<std::string> environment = {};  // beside this program's own, of the form NAME=VALUE
};

// The answer to a prompt: a PIN, or why there is none.
struct PinAnswer {
  const Pin* pin = nullptr;
  std::string reason;
};

// What a process may do, and who learns of it. A function that is not set is not called.
struct Supervision {
  Interrupt& interrupt;
  double timeout = 0;        // seconds, 0 for none; the time that an operator types does not count
  bool patient = false;      // the first interrupt waits for the process to end by itself
  bool endless = false;      // a report beyond the limit loses its middle and ends nothing
  Terminal* lent = nullptr;  // the process gets a terminal behind this one
  std::function<PinAnswer(std::uint64_t position)> pin = {};
  std::function<void(std::string_view output, double seconds)> progress = {};  // now and then
};

// How a process ended, and what it wrote.
struct Ended {
  enum class By { itself, timeLimit, reportLimit, interrupt, lackOfPin };
  By by = By::itself;
  int status = 0;  // as waitpid() gives it
  double seconds = 0;
  std::string report, errors;           // standard output and standard error
  bool cut = false;                     // either was longer than is kept
  std::string reason;                   // for the lack of a PIN
  std::vector<std::uint64_t> answered;  // positions whose PIN was handed over, in order
};

// Bytes that are kept of a report, and as many of standard error.
inline constexpr std::size_t reportLimit = std::size_t{16} << 20;

// Makes this process the parent of all that loses its own, so that no daemon escapes. To be called
// once, before any process is started.
void adoptOrphans();

// Starts a program in a session of its own, deals with it until it has ended, and kills what it
// leaves behind. Its standard input is a pipe on which only prompts for a PIN are answered (at its
// end at once when `pin` is not set), or the lent terminal. A process that has to end gets an
// interrupt first, so that kestrel names the call that it is in, and two seconds. Throws
// std::system_error when the program cannot be started.
Ended supervise(const Command& command, const Supervision& supervision);
