#include "run/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <system_error>

#include "run/Orphans.h"
#include "run/Report.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

constexpr milliseconds grace{2000};  // from the interrupt to the kill
constexpr milliseconds progressPeriod{100};
constexpr milliseconds slowestLook{50};  // whether a process waits for the answer to its prompt

std::set<pid_t> foreignChildren;  // a shell that became this program may have had some

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

struct Pipe {
  Descriptor reading, writing;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
    reading = Descriptor(ends[0]);
    writing = Descriptor(ends[1]);
  }
};

void doNotBlock(const Descriptor& descriptor) {
  fcntl(descriptor.get(), F_SETFL, O_NONBLOCK);
}

// A terminal of its own for a process: what it writes, and nothing else, comes out byte for byte.
struct PseudoTerminal {
  Descriptor master;
  std::string slave;
  explicit PseudoTerminal(const Terminal& model)
      : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    char name[64];
    if (master.get() < 0 || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0 ||
        ptsname_r(master.get(), name, sizeof name) != 0) {
      fail("pseudo terminal");
    }
    slave = name;
    termios modes{};
    tcgetattr(master.get(), &modes);
    modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(master.get(), TCSANOW, &modes);
    winsize size{};
    if (ioctl(model.descriptor(), TIOCGWINSZ, &size) == 0) ioctl(master.get(), TIOCSWINSZ, &size);
  }
};

// What posix_spawn() is told.
class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &defaults);
    posix_spawnattr_setflags(&attributes_,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void use(const Descriptor& source, int number) {
    posix_spawn_file_actions_adddup2(&actions_, source.get(), number);
  }
  // As the controlling terminal: the process leads a session that has none.
  void useTerminal(const std::string& name) {
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, name.c_str(), O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDOUT_FILENO);
  }

  pid_t start(const Command& command) {
    if (!command.folder.empty()) {
      posix_spawn_file_actions_addchdir_np(&actions_, command.folder.c_str());
    }
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    std::vector<char*> arguments{const_cast<char*>(command.program.c_str())}, environment;
    const auto add = [](const std::vector<std::string>& texts, std::vector<char*>& to) {
      for (const std::string& text : texts) to.push_back(const_cast<char*>(text.c_str()));
    };
    add(command.arguments, arguments);
    for (char** each = environ; *each != nullptr; ++each) environment.push_back(*each);
    add(command.environment, environment);
    arguments.push_back(nullptr);
    environment.push_back(nullptr);
    pid_t process = -1;
    const int error = posix_spawn(&process, command.program.c_str(), &actions_, &attributes_,
                                  arguments.data(), environment.data());
    if (error != 0) fail(command.program, error);
    return process;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Whether a process reads its standard input just now. Where the system does not say, it does.
bool readsInput(pid_t process) {
  std::ifstream stream("/proc/" + std::to_string(process) + "/syscall");
  std::string number, descriptor;
  if (!(stream >> number)) return true;
  return number == std::to_string(SYS_read) && stream >> descriptor && descriptor == "0x0";
}

class Supervisor {
 public:
  explicit Supervisor(const Supervision& supervision) : supervision_(supervision) {}
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  Ended run(const Command& command);

 private:
  void start(const Command& command);
  void startClock();
  void await();  // the next event, or the next moment to look
  void receive(Descriptor& from, std::string& into);
  void keep(std::string_view bytes, std::string& into);
  void relayInput();
  void lookAtPrompt();
  void lookAtLimits();
  void stop(Ended::By by);
  bool hasEnded();

  const Supervision& supervision_;
  pid_t process_ = -1;
  Descriptor event_, input_, output_, errors_;
  std::optional<TerminalModes> modes_;
  Clock::time_point start_, deadline_ = Clock::time_point::max();
  Clock::time_point kill_ = Clock::time_point::max(), nextProgress_;
  milliseconds nextLook_{0};  // at a prompt; 0 while none waits for its answer
  std::string fresh_;         // output since the last progress
  Ended ended_;
};

Supervisor::~Supervisor() {
  if (process_ < 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  killChildren(foreignChildren);
}

void Supervisor::start(const Command& command) {
  SpawnPlan plan;
  Pipe errors;
  plan.use(errors.writing, STDERR_FILENO);
  if (supervision_.lent != nullptr) {
    modes_.emplace(supervision_.lent->descriptor(), TerminalModes::Kind::lent);
    PseudoTerminal terminal(*supervision_.lent);
    plan.useTerminal(terminal.slave);
    process_ = plan.start(command);
    input_ = Descriptor(dup(terminal.master.get()));
    output_ = std::move(terminal.master);
  } else {
    Pipe input, output;
    plan.use(input.reading, STDIN_FILENO);
    plan.use(output.writing, STDOUT_FILENO);
    process_ = plan.start(command);
    if (supervision_.pin) input_ = std::move(input.writing);
    output_ = std::move(output.reading);
  }
  errors_ = std::move(errors.reading);
  event_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process_, 0)));
  if (event_.get() < 0) fail("pidfd_open");
  for (const Descriptor* each : {&input_, &output_, &errors_}) doNotBlock(*each);
}

void Supervisor::startClock() {
  start_ = Clock::now();
  nextProgress_ = start_ + progressPeriod;
  if (supervision_.timeout > 0) {
    deadline_ = start_ + std::chrono::duration_cast<Clock::duration>(Seconds(supervision_.timeout));
  }
}

Ended Supervisor::run(const Command& command) {
  start(command);
  startClock();
  do {
    await();
    lookAtPrompt();
    lookAtLimits();
  } while (!hasEnded());
  ended_.seconds = Seconds(Clock::now() - start_).count();
  killChildren(foreignChildren);
  receive(output_, ended_.report);
  receive(errors_, ended_.errors);
  return std::move(ended_);
}

void Supervisor::await() {
  Clock::time_point next = std::min(deadline_, kill_);
  if (supervision_.progress) next = std::min(next, nextProgress_);
  int timeout = -1;
  if (next != Clock::time_point::max()) {
    const auto left = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
    timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, 1000000));
  }
  if (nextLook_.count() > 0) {
    const int look = static_cast<int>(nextLook_.count());
    timeout = timeout < 0 ? look : std::min(timeout, look);
  }
  const bool lent = supervision_.lent != nullptr;
  pollfd events[] = {{event_.get(), POLLIN, 0},
                     {supervision_.interrupt.descriptor(), POLLIN, 0},
                     {output_.get(), POLLIN, 0},
                     {errors_.get(), POLLIN, 0},
                     {lent ? supervision_.lent->descriptor() : -1, POLLIN, 0}};
  poll(events, std::size(events), timeout);
  if (events[2].revents != 0) receive(output_, ended_.report);
  if (events[3].revents != 0) receive(errors_, ended_.errors);
  if (events[4].revents != 0) relayInput();
}

// All that is there, up to what leaves time for the limits; a stream at its end is closed.
void Supervisor::receive(Descriptor& from, std::string& into) {
  std::array<char, 65536> bytes;
  for (int reads = 0; reads < 32 && from.get() >= 0; ++reads) {
    const ssize_t count = read(from.get(), bytes.data(), bytes.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return from.reset();
    const std::string_view text(bytes.data(), static_cast<std::size_t>(count));
    keep(text, into);
    if (supervision_.lent != nullptr) supervision_.lent->write(text);
    if (supervision_.progress && &into == &ended_.report) fresh_ += text;
  }
}

void Supervisor::keep(std::string_view bytes, std::string& into) {
  if (supervision_.endless && into.size() + bytes.size() > reportLimit) {
    into.erase(reportLimit / 4, reportLimit / 2);
    ended_.cut = true;
  }
  const std::size_t room = reportLimit - into.size();
  into.append(bytes.substr(0, room));
  if (bytes.size() <= room) return;
  ended_.cut = true;
  stop(Ended::By::reportLimit);
}

void Supervisor::relayInput() {
  std::array<char, 256> typed;
  const ssize_t count = read(supervision_.lent->descriptor(), typed.data(), typed.size());
  if (count > 0) {
    [[maybe_unused]] const ssize_t written =
        write(input_.get(), typed.data(), static_cast<std::size_t>(count));
  }
  explicit_bzero(typed.data(), typed.size());
}

// Only what ends the output unfinished, while the process waits, can be a prompt of kestrel's: to
// the same text of a module a PIN is not given, where it would be read as the answer to another
// prompt. No position is answered twice.
void Supervisor::lookAtPrompt() {
  const std::optional<std::uint64_t> position = promptAtEnd(ended_.report);
  if (!position || !supervision_.pin || ended_.by != Ended::By::itself ||
      std::ranges::find(ended_.answered, *position) != ended_.answered.end()) {
    nextLook_ = milliseconds(0);
    return;
  }
  if (!readsInput(process_)) {
    nextLook_ = std::min(nextLook_ * 2 + milliseconds(1), slowestLook);
    return;
  }
  nextLook_ = milliseconds(0);
  const Clock::time_point asked = Clock::now();
  PinAnswer answer = supervision_.pin(*position);
  const Clock::duration typing = Clock::now() - asked;
  start_ += typing;
  if (deadline_ != Clock::time_point::max()) deadline_ += typing;
  if (answer.pin == nullptr) {
    ended_.reason = std::move(answer.reason);
    return stop(Ended::By::lackOfPin);
  }
  ended_.answered.push_back(*position);
  const std::string_view pin = answer.pin->text();
  [[maybe_unused]] ssize_t written = write(input_.get(), pin.data(), pin.size());
  written = write(input_.get(), "\n", 1);
}

void Supervisor::lookAtLimits() {
  const Clock::time_point now = Clock::now();
  if (supervision_.progress && now >= nextProgress_) {
    supervision_.progress(std::exchange(fresh_, {}), Seconds(now - start_).count());
    nextProgress_ = now + progressPeriod;
  }
  const int impatient = supervision_.interrupt.count() - (supervision_.patient ? 1 : 0);
  if (impatient > 0) stop(Ended::By::interrupt);
  if (now >= deadline_) stop(Ended::By::timeLimit);
  if (now >= kill_ || impatient > 1) {
    kill(process_, SIGKILL);
    kill_ = Clock::time_point::max();
  }
}

void Supervisor::stop(Ended::By by) {
  if (ended_.by != Ended::By::itself || process_ < 0) return;
  ended_.by = by;
  deadline_ = Clock::time_point::max();
  kill_ = Clock::now() + grace;
  kill(process_, SIGINT);
  kill(process_, SIGCONT);  // a stopped one does not see the interrupt
}

bool Supervisor::hasEnded() {
  if (waitpid(process_, &ended_.status, WNOHANG) != process_) return false;
  process_ = -1;
  return true;
}

}  // namespace

void adoptOrphans() {
  siginfo_t info;
  if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0) foreignChildren = childProcesses();
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Ended supervise(const Command& command, const Supervision& supervision) {
  return Supervisor(supervision).run(command);
}
