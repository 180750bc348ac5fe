// The call into foreign code that is under way, for whoever has to say where the process ended.
#pragma once

#include <atomic>
#include <string_view>

namespace kestrel {

// Names a call on this thread while it lives: a PKCS#11 function, the loader's that runs the
// module's code, or one of PC/SC.
class CallInFlight {
 public:
  explicit CallInFlight(const char* name) { set(name); }
  ~CallInFlight() { set(nullptr); }
  CallInFlight(const CallInFlight&) = delete;
  CallInFlight& operator=(const CallInFlight&) = delete;

  // The name of this thread's call, null while no call is under way.
  static const char* name() { return current.load(std::memory_order_relaxed); }

  // The process ends by its own hand now, wherever it stands.
  static void forget() { set(nullptr); }

  // To be called by the first thread. Its call is what other threads can name.
  static void watchThisThread() { first = &current; }
  static bool onWatchedThread() { return first == &current; }
  static const char* nameOnWatchedThread() {
    return first == nullptr ? nullptr : first->load(std::memory_order_relaxed);
  }

  // "the module's " or whose else the call of that name is.
  static std::string_view owner(std::string_view call) {
    return call.starts_with("SCard") ? "the PC/SC service's " : "the module's ";
  }

 private:
  // The fence: reading the module's function list, which may be no memory at all, comes after it.
  static void set(const char* name) {
    current.store(name, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  static constinit thread_local std::atomic<const char*> current;
  static std::atomic<const char*>* first;
};

}  // namespace kestrel
