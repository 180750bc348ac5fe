#include "probe/Companion.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace kestrel::probe {

namespace {

// Far more than a check has: by then the supervisor has ended both.
constexpr int replyMilliseconds = 60000;

struct Pipe {
  Descriptor reading, writing;
};

Pipe makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

bool readWhole(int from, void* data, std::size_t size) {
  return read(from, data, size) == static_cast<ssize_t>(size);
}

}  // namespace

Companion::Companion(const std::function<Record(const Request&)>& serve) {
  Pipe requests = makePipe(), replies = makePipe();
  const pid_t worker = getpid();
  process_ = fork();
  if (process_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != worker) _exit(1);
    requests.writing.reset();  // so that it ends with the worker's
    Request request;
    if (!readWhole(requests.reading.get(), &request, sizeof request)) _exit(0);
    const Record record = serve(request);
    _exit(write(replies.writing.get(), &record, sizeof record) == sizeof record ? 0 : 1);
  }
  requests_ = std::move(requests.writing);
  replies_ = std::move(replies.reading);
}

Companion::~Companion() {
  requests_.reset();
  if (process_ > 0) waitpid(process_, nullptr, 0);
}

Record Companion::ask(std::uint32_t check, View message) {
  Request request{check, static_cast<std::uint32_t>(message.size()), {}};
  message.copy(request.message.data(), request.message.size());
  if (write(requests_.get(), &request, sizeof request) != sizeof request) dieAlike();
  pollfd reply{replies_.get(), POLLIN, 0};
  if (poll(&reply, 1, replyMilliseconds) == 0) kill(process_, SIGKILL);
  Record record;
  if (!readWhole(replies_.get(), &record, sizeof record)) dieAlike();
  return record;
}

void Companion::dieAlike() {
  int status = 0;
  waitpid(process_, &status, 0);
  if (WIFSIGNALED(status)) raise(WTERMSIG(status));
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

}  // namespace kestrel::probe
