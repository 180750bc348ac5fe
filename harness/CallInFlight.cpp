#include "harness/CallInFlight.h"

namespace kestrel {

constinit thread_local std::atomic<const char*> CallInFlight::current = nullptr;

std::atomic<const char*>* CallInFlight::first = nullptr;

}  // namespace kestrel
