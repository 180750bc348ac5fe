#include "harness/Output.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <streambuf>

#include "harness/StandardStream.h"

namespace kestrel {

namespace {

// Nothing here is ever destroyed or allocated: it serves until the last instruction, and on a heap
// that the module ruined.
pid_t ownProcess = 0;  // 0 for any, in programs that do not care

std::array<char, 16384> pending;
std::atomic<std::size_t> pendingLength = 0;
std::atomic<bool> writing = false;  // out of `pending`
std::atomic<bool> failed = false;
std::atomic<bool> batching = false;
std::atomic<bool> due = false;

// One thread at a time may touch the report. A lock of its own: a handler has to see whether the
// thread that it interrupted holds it.
std::atomic<pthread_t> holder = 0;

bool tryHold() {
  pthread_t nobody = 0;
  return holder.compare_exchange_strong(nobody, pthread_self(), std::memory_order_acquire);
}

void hold() {
  while (!tryHold()) {
    const pthread_t other = holder;
    if (other != 0) holder.wait(other);
  }
}

void release() {
  holder.store(0, std::memory_order_release);
  holder.notify_one();
}

// Nothing for a thread that holds the report already: the one that finished it.
class Turn {
 public:
  Turn() : taken_(holder != pthread_self()) {
    if (taken_) hold();
  }
  ~Turn() {
    if (taken_) release();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  bool taken_;
};

// Whether a write that failed is worth another attempt.
bool canGoOn(int error, int descriptor) {
  if (error == EAGAIN) {
    pollfd ready{descriptor, POLLOUT, 0};
    poll(&ready, 1, -1);
    return true;
  }
  return error == EINTR;
}

void giveUp(const char* reason) {
  failed = true;
  putError({"kestrel: the report cannot be written: ", reason, "\n"});
}

// The caller has the turn.
bool send() {
  if (!isOwnProcess()) _exit(1);
  writing = true;
  for (std::size_t sent = 0; sent < pendingLength && !failed;) {
    const int descriptor = standardOutput.descriptor();
    const ssize_t count = write(descriptor, pending.data() + sent, pendingLength - sent);
    if (count >= 0) {
      sent += static_cast<std::size_t>(count);
    } else if (!canGoOn(errno, descriptor)) {
      giveUp(descriptor < 0 ? "the module took standard output" : strerrordesc_np(errno));
    }
  }
  pendingLength = 0;
  writing = false;
  due = failed.load();
  return !failed;
}

// The caller has the turn. Whoever interrupts the copying finds all that was added before.
void add(std::string_view text) {
  while (!text.empty() && !failed) {
    const std::size_t before = pendingLength;
    const std::size_t count = std::min(text.size(), pending.size() - before);
    std::memcpy(pending.data() + before, text.data(), count);
    pendingLength.store(before + count, std::memory_order_release);
    if (pendingLength == pending.size()) send();
    text.remove_prefix(count);
  }
  if (!batching) due.store(true, std::memory_order_relaxed);
}

class ReportBuffer : public std::streambuf {
 protected:
  std::streamsize xsputn(const char* text, std::streamsize length) override {
    writeReport({text, static_cast<std::size_t>(length)});
    return length;
  }
  int_type overflow(int_type character) override {
    const char byte = traits_type::to_char_type(character);
    if (!traits_type::eq_int_type(character, traits_type::eof())) writeReport({&byte, 1});
    return traits_type::not_eof(character);
  }
  int sync() override {
    sendReport();  // whoever is next to call the module sees that it failed
    return 0;
  }
};

// What std::cout writes to while it shares the buffer of stdout.
const std::streambuf* const sharedBuffer = std::cout.rdbuf();

bool foreignTextWaits() {
  return std::cout.rdbuf() != sharedBuffer || (stdout != nullptr && __fpending(stdout) != 0);
}

void flushForeignText() {
  if (stdoutIsHeld()) return;
  if (std::cout.rdbuf() != sharedBuffer) std::cout.flush();
  if (stdout != nullptr) std::fflush(stdout);
}

// A thread that was interrupted while it wrote has to leave it at that: how much of the text is out
// already only the kernel knows. Another thread that holds the report lets go soon, or is stuck.
void salvageOwnText() {
  constexpr timespec pause{0, 1'000'000};
  const bool held = holder == pthread_self();
  if (held && writing) return;
  bool mine = held;
  for (int i = 0; i < 1000 && !(mine = mine || tryHold()); ++i) nanosleep(&pause, nullptr);
  if (!mine) return;
  send();
  if (!held) release();
}

}  // namespace

std::ostream& report = *new std::ostream(new ReportBuffer);

void openOutput() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
  standardInput.recognise();
  standardOutput.keep();
  standardError.keep();
  ownProcess = getpid();
}

bool isOwnProcess() {
  return ownProcess == 0 || getpid() == ownProcess;
}

void writeReport(std::string_view text) {
  const Turn turn;
  add(text);
}

void batchReport() {
  batching = isatty(standardOutput.descriptor()) == 0;
}

bool reportIsDue() {
  return due.load(std::memory_order_relaxed);
}

bool sendReport() {
  const Turn turn;
  return send();
}

bool finishReport(std::string_view lastLine) {
  hold();  // for good
  add(lastLine);
  return send();
}

void salvageReport() {
  salvageOwnText();
  if (foreignTextWaits()) flushForeignText();
}

void sendForeignText() {
  if (!foreignTextWaits()) return;
  sendReport();
  flushForeignText();
}

bool stdoutIsHeld() {
  if (stdout == nullptr) return false;
  if (ftrylockfile(stdout) != 0) return true;
  funlockfile(stdout);
  return false;
}

void putError(std::initializer_list<std::string_view> pieces) {
  std::array<iovec, 8> parts{};
  int count = 0;
  for (const std::string_view piece : pieces) {
    parts[static_cast<std::size_t>(count++)] = {const_cast<char*>(piece.data()), piece.size()};
  }
  if (!isOwnProcess()) return;
  [[maybe_unused]] const ssize_t written = writev(standardError.descriptor(), parts.data(), count);
}

void sayError(std::initializer_list<std::string_view> pieces) {
  sendReport();
  putError(pieces);
}

}  // namespace kestrel
