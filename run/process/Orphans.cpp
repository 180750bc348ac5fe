#include "run/process/Orphans.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <string_view>

#include "common/Descriptor.h"
#include "common/Numbers.h"

namespace kestrel {

namespace {

namespace fs = std::filesystem;

constexpr int dyingMilliseconds = 1000;  // after SIGKILL: longer is in the hands of a driver

// From "PID (NAME) STATE PARENT ...", where the name may hold anything. The process may be gone by
// now, even between the open and the read: then it is nobody's child.
pid_t parentOf(const fs::path& process) {
  const Descriptor file(open((process / "stat").c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> bytes;
  const ssize_t count = read(file.get(), bytes.data(), bytes.size());
  std::string_view rest(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  rest.remove_prefix(std::min(rest.rfind(')'), rest.size()));
  rest.remove_prefix(std::min<std::size_t>(4, rest.size()));
  return readNumber<pid_t>(rest.substr(0, rest.find(' '))).value_or(0);
}

bool waitGone(pid_t child) {
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  pollfd event{process.get(), POLLIN, 0};
  return poll(&event, 1, dyingMilliseconds) > 0 && waitpid(child, nullptr, WNOHANG) >= 0;
}

}  // namespace

std::set<pid_t> childProcesses() {
  std::set<pid_t> children;
  std::error_code error;
  for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
    const auto process = readNumber<pid_t>(at->path().filename().native());
    if (process && parentOf(at->path()) == getpid()) children.insert(*process);
  }
  return children;
}

void killChildren(const std::set<pid_t>& spared) {
  std::set<pid_t> left = spared;
  for (;;) {
    pid_t ended;
    while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0) return;
    std::set<pid_t> children = childProcesses();
    std::erase_if(children, [&left](pid_t child) { return left.contains(child); });
    if (children.empty()) return;
    for (const pid_t child : children) kill(child, SIGKILL);
    for (const pid_t child : children) {
      if (!waitGone(child)) left.insert(child);
    }
  }
}

}  // namespace kestrel
