#include "token/Harm.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <thread>

namespace kestrel::token {

namespace {

// Deeper and deeper, in a way that no compiler turns into a loop or warns of.
int overflow(volatile int* above);
int (*volatile deeper)(volatile int*) = overflow;

int overflow(volatile int* above) {
  volatile int here[1024] = {};
  here[0] = *above + 1;
  return deeper(here) + here[0];
}

void overflowTheStack() {
  volatile int start = 0;
  overflow(&start);
}

[[noreturn]] void hang() {
  for (;;) pause();
}

void resetSignals() {
  for (int number = 1; number < NSIG; ++number) std::signal(number, SIG_DFL);
}

void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
}

// The file has that number then, in place of what had it.
template <int descriptor>
void takeOver() {
  const int file = open("own", O_RDWR | O_CREAT, 0600);
  if (file == descriptor) return;
  dup2(file, descriptor);
  close(file);
}

// Into the buffers of both, whatever these are.
void print() {
  std::printf("printed by the token\n");
  std::cout << "streamed by the token\n";
}

constexpr struct {
  const char* name;
  void (*harm)();
} harms[] = {
    {"segv", [] { raise(SIGSEGV); }},
    {"trap", [] { raise(SIGTRAP); }},
    {"alarm", [] { raise(SIGALRM); }},
    {"abort", [] { std::abort(); }},
    {"exit", [] { std::exit(0); }},
    {"_exit", [] { _exit(0); }},
    {"quick_exit", [] { std::quick_exit(0); }},
    {"throw", [] { throw std::runtime_error("thrown by the token"); }},
    {"overflow", overflowTheStack},
    {"hang", hang},
    {"reset", resetSignals},
    {"block", blockSignals},
    {"print", print},
    {"badbit", [] { std::cout.setstate(std::ios::badbit); }},
    {"unsync", [] { std::ios::sync_with_stdio(false); }},
    {"fclose", [] { std::fclose(stdout); }},
    {"lock", [] { flockfile(stdout); }},
    {"close", [] { close_range(3, ~0U, 0); }},
    {"stdin", takeOver<STDIN_FILENO>},
    {"stdout", takeOver<STDOUT_FILENO>},
    {"return", [] {}},
};

// On a thread of the token's own, while the call waits for it.
void onThread(const std::string& name) {
  std::thread([&name] { doHarm(name); }).join();
}

// Without it the code of a thread that lives on would be gone.
void stayLoaded() {
  Dl_info self;
  if (dladdr(reinterpret_cast<void*>(stayLoaded), &self) == 0) return;
  dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

// Likewise, but the call goes on, and the thread waits for the file "now".
void later(const std::string& name) {
  stayLoaded();
  std::thread([name] {
    while (access("now", F_OK) != 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    doHarm(name);
  }).detach();
}

// As an exit handler, and as the destructor of a variable of the thread.
void atExit(const std::string& name) {
  static std::string harm;
  harm = name;
  std::atexit([] { doHarm(harm); });
}

struct ThreadVariable {
  std::string harm = {};
  ~ThreadVariable() noexcept(false) { doHarm(harm); }
};

void atThreadEnd(const std::string& name) {
  thread_local ThreadVariable variable;
  variable.harm = name;
}

// In a child, which goes on as the caller if the harm lets it, while the parent waits for its end.
void inChild(const std::string& name) {
  const pid_t child = fork();
  if (child == 0) {
    doHarm(name);
  } else {
    waitpid(child, nullptr, 0);
  }
}

constexpr struct {
  std::string_view prefix;
  void (*run)(const std::string& name);
} places[] = {{"thread:", onThread},
              {"later:", later},
              {"child:", inChild},
              {"atexit:", atExit},
              {"thread_local:", atThreadEnd}};

}  // namespace

bool doHarm(const std::string& name) {
  for (const auto& place : places) {
    if (!name.starts_with(place.prefix)) continue;
    place.run(name.substr(place.prefix.size()));
    return true;
  }
  const auto* found = std::ranges::find(harms, name, [](const auto& row) { return row.name; });
  if (found == std::end(harms)) return false;
  found->harm();
  return true;
}

}  // namespace kestrel::token
