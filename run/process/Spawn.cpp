#include "run/process/Spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace kestrel {

namespace {

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

// A terminal of its own for a process: what it writes, and nothing else, comes out byte for byte.
struct PseudoTerminal {
  Descriptor master;
  std::string slave;
  explicit PseudoTerminal(const OperatorTerminal& model)
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

void require(int error, const char* what) {
  if (error != 0) fail(what, error);
}

// What posix_spawn() is told.
class SpawnPlan {
 public:
  SpawnPlan() {
    require(posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init");
    require(posix_spawnattr_init(&attributes_), "posix_spawnattr_init");
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  void use(const Descriptor& source, int number) {
    require(posix_spawn_file_actions_adddup2(&actions_, source.get(), number), "dup2");
  }
  // As the controlling terminal: the process leads a session that has none.
  void useTerminal(const std::string& name) {
    require(posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, name.c_str(), O_RDWR, 0),
            "open");
    require(posix_spawn_file_actions_adddup2(&actions_, STDIN_FILENO, STDOUT_FILENO), "dup2");
  }

  pid_t start(const Command& command) {
    if (!command.folder.empty()) {
      require(posix_spawn_file_actions_addchdir_np(&actions_, command.folder.c_str()), "chdir");
    }
    require(posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1), "closefrom");
    setSignals();
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
    require(posix_spawn(&process, command.program.c_str(), &actions_, &attributes_,
                        arguments.data(), environment.data()),
            command.program.c_str());
    return process;
  }

 private:
  void setSignals() {
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGINT);  // by which a process is ended, also where a shell ignores it
    require(posix_spawnattr_setsigmask(&attributes_, &none), "posix_spawnattr_setsigmask");
    require(posix_spawnattr_setsigdefault(&attributes_, &defaults),
            "posix_spawnattr_setsigdefault");
    require(posix_spawnattr_setflags(
                &attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
            "posix_spawnattr_setflags");
  }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

Descriptor openEvent(pid_t process) {
  Descriptor event(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (event.get() >= 0) return event;
  const int error = errno;
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  fail("pidfd_open", error);
}

}  // namespace

Child spawn(const Command& command, const OperatorTerminal* model) {
  SpawnPlan plan;
  Pipe errors;
  plan.use(errors.writing, STDERR_FILENO);
  Child child;
  if (model != nullptr) {
    PseudoTerminal terminal(*model);
    plan.useTerminal(terminal.slave);
    child.input = Descriptor(fcntl(terminal.master.get(), F_DUPFD_CLOEXEC, 0));
    if (child.input.get() < 0) fail("dup");
    child.process = plan.start(command);
    child.output = std::move(terminal.master);
  } else {
    Pipe input, output;
    plan.use(input.reading, STDIN_FILENO);
    plan.use(output.writing, STDOUT_FILENO);
    child.process = plan.start(command);
    child.input = std::move(input.writing);
    child.output = std::move(output.reading);
  }
  child.errors = std::move(errors.reading);
  child.event = openEvent(child.process);
  for (const Descriptor* each : {&child.input, &child.output, &child.errors}) {
    fcntl(each->get(), F_SETFL, O_NONBLOCK);
  }
  return child;
}

}  // namespace kestrel
