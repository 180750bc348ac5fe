// The names that the command line knows, and what each runs. What else there is to know of a test
// stands in harness/Tests.h.
#pragma once

#include <string_view>

#include "harness/TestManager.h"

namespace kestrel {

// One entry: `run` is called after TestManager::setup(), except for "-a", which only sets a flag.
struct TestEntry {
  std::string_view name;
  void (*run)(TestManager&);
  bool needsSetup = true;
};

// The entry of exactly this name, case included; null for an unknown one.
const TestEntry* findEntry(std::string_view name);

}  // namespace kestrel
