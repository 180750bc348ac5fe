#include "run/process/Supervise.h"

#include <poll.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>

#include "run/process/Orphans.h"

namespace kestrel {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

constexpr milliseconds grace{2000};  // from the interrupt to the kill
constexpr milliseconds progressPeriod{100};
constexpr milliseconds slowestLook{50};  // whether a process waits for the answer to its prompt

std::set<pid_t> foreignChildren;  // a shell that became this program may have had some

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
  void startClock();
  void await();  // the next event, or the next moment to look
  void receive(Descriptor& from, std::string& into);
  void keep(std::string_view bytes, std::string& into);
  void relayInput();
  void lookAtPrompt();
  void lookAtLimits();
  void stop(Ended::By by);
  bool hasEnded();
  void noteSilence() { ended_.silence = Seconds(Clock::now() - lastOutput_).count(); }

  const Supervision& supervision_;
  Child child_;
  std::optional<TerminalModes> modes_;
  Clock::time_point start_, lastOutput_, deadline_ = Clock::time_point::max();
  Clock::time_point kill_ = Clock::time_point::max(), nextProgress_;
  milliseconds nextLook_{0};  // at a prompt; 0 while none waits for its answer
  std::string fresh_;         // output since the last progress
  Ended ended_;
};

Supervisor::~Supervisor() {
  if (child_.process < 0) return;
  kill(child_.process, SIGKILL);
  waitpid(child_.process, nullptr, 0);
  killChildren(foreignChildren);
}

void Supervisor::startClock() {
  start_ = lastOutput_ = Clock::now();
  nextProgress_ = start_ + progressPeriod;
  if (supervision_.timeout > 0) {
    deadline_ = start_ + std::chrono::duration_cast<Clock::duration>(Seconds(supervision_.timeout));
  }
}

Ended Supervisor::run(const Command& command) {
  if (supervision_.lent != nullptr) {
    modes_.emplace(supervision_.lent->descriptor(), TerminalModes::Kind::lent);
  }
  startClock();
  child_ = spawn(command, supervision_.lent);
  if (!supervision_.pin && supervision_.lent == nullptr) child_.input.reset();
  do {
    await();
    lookAtPrompt();
    lookAtLimits();
  } while (!hasEnded());
  ended_.seconds = Seconds(Clock::now() - start_).count();
  if (ended_.by == Ended::By::itself) noteSilence();
  killChildren(foreignChildren);
  receive(child_.output, ended_.report);
  receive(child_.errors, ended_.errors);
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
  pollfd events[] = {{child_.event.get(), POLLIN, 0},
                     {supervision_.interrupt.descriptor(), POLLIN, 0},
                     {child_.output.get(), POLLIN, 0},
                     {child_.errors.get(), POLLIN, 0},
                     {lent ? supervision_.lent->descriptor() : -1, POLLIN, 0}};
  poll(events, std::size(events), timeout);
  if (events[2].revents != 0) receive(child_.output, ended_.report);
  if (events[3].revents != 0) receive(child_.errors, ended_.errors);
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
    if (&into == &ended_.report) lastOutput_ = Clock::now();
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
        write(child_.input.get(), typed.data(), static_cast<std::size_t>(count));
  }
  explicit_bzero(typed.data(), typed.size());
}

// Only what ends the output unfinished, while the process waits, can be a prompt of the program's:
// to the same text of a module a PIN is not given, where it would be read as the answer to another
// prompt. No position is answered twice.
void Supervisor::lookAtPrompt() {
  std::optional<std::uint64_t> position;
  if (supervision_.pin && ended_.by == Ended::By::itself) {
    position = supervision_.promptAtEnd(ended_.report);
  }
  if (!position || std::ranges::find(ended_.answered, *position) != ended_.answered.end()) {
    nextLook_ = milliseconds(0);
    return;
  }
  if (!readsInput(child_.process)) {
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
  [[maybe_unused]] ssize_t written = write(child_.input.get(), pin.data(), pin.size());
  written = write(child_.input.get(), "\n", 1);
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
    kill(child_.process, SIGKILL);
    kill_ = Clock::time_point::max();
  }
}

void Supervisor::stop(Ended::By by) {
  if (ended_.by != Ended::By::itself || child_.process < 0) return;
  ended_.by = by;
  noteSilence();
  deadline_ = Clock::time_point::max();
  kill_ = Clock::now() + grace;
  kill(child_.process, SIGINT);
  kill(child_.process, SIGCONT);  // a stopped one does not see the interrupt
}

bool Supervisor::hasEnded() {
  if (waitpid(child_.process, &ended_.status, WNOHANG) != child_.process) return false;
  child_.process = -1;
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

}  // namespace kestrel
