#include "app/CommandLine.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "app/TestRegistry.h"
#include "harness/Output.h"
#include "harness/Tests.h"

namespace kestrel {

namespace {

constexpr std::string_view usageHead =
    R"(Usage: [option] [arguments]
Options:
  -pw [password]      Set the password.
  -d                  Run in debug mode.
  -a                  Run selected tests with every certificates.

Arguments:
)";

constexpr std::size_t nameWidth = 20;
static_assert(std::ranges::all_of(tests, [](const Test& test) {
  return test.advertised.size() < nameWidth;
}));

void printUsageLine(std::string_view name, std::string_view text) {
  report << "  " << name << std::string(nameWidth - name.size(), ' ') << text << '\n';
}

void printUsage() {
  report << usageHead;
  printUsageLine("all", "Run all tests.");
  for (const Test& test : tests) printUsageLine(test.advertised, test.usage);
}

void takePin(TestManager& manager, char* argument) {
  manager.setPin(argument, 0);
  OPENSSL_cleanse(argument, std::string_view(argument).size());
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  TestManager manager;
  if (argc <= 1) printUsage();
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "-pw") {
      if (++i == argc) {
        report << "Password was not specified.\n";
        break;
      }
      takePin(manager, argv[i]);
    } else if (argument == "-d") {
      manager.debug = true;
    } else if (const TestEntry* entry = findEntry(argument)) {
      if (entry->needsSetup) manager.setup();
      entry->run(manager);
    } else {
      report << "No test matches '" << argument << "'.\n";
      printUsage();
      break;
    }
  }
  return 0;
}

}  // namespace kestrel
