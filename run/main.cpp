// Wires the program: the command line, the runs, and what is written of them.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <tuple>

#include "run/Look.h"
#include "run/Options.h"
#include "run/Runner.h"
#include "run/ShimUse.h"
#include "run/process/Supervise.h"
#include "run/results/Baseline.h"
#include "run/write/Writers.h"

namespace kestrel::run {

namespace {

constexpr int usageStatus = 2, interruptedStatus = 130;

// The modules that are there are run all the same.
bool isOneMissing(const Options& options) {
  return !std::ranges::all_of(options.modules, &std::string::empty, &NamedModule::missing);
}

void readPins(const Options& options, PinSets& pins) {
  for (const std::string& file : options.pinFiles) {
    pins.read(file, [&](const std::string& name) {
      return std::ranges::find(options.modules, name, &NamedModule::name) != options.modules.end();
    });
  }
  pins.common.takeFromEnvironment();
}

void compareWith(const Results& baseline, const Options& options, Results& results) {
  results.changes = compare(baseline, results);
  results.changedFails = options.changedFails;
  const std::filesystem::path folder =
      std::filesystem::absolute(std::filesystem::path(options.baseline) / "");
  results.against = folder.parent_path().filename();
  for (const auto& [one, other, where] : {std::tuple(baseline.options, results.options, "before"),
                                          std::tuple(results.options, baseline.options, "now")}) {
    for (const std::string& word : one) {
      if (std::ranges::find(other, word) != other.end()) continue;
      results.otherOptions.push_back(fmt::format("only {}: {}", where, word));
    }
  }
}

int runAll(const Options& options) {
  PinSets pins;
  readPins(options, pins);
  prepareFiles(options.destinations);
  std::optional<Results> baseline;
  if (!options.baseline.empty()) baseline = readBaseline(options.baseline);
  adoptOrphans();
  Interrupt interrupt;
  if (options.shim.isAsked()) checkShim(options, interrupt);
  const std::unique_ptr<OperatorTerminal> terminal = OperatorTerminal::open();
  Display display(usesStandardOutput(options.destinations) ? stderr : stdout, options.quiet);
  if (options.ownToken && pins.common.empty()) {
    pins.common.setDefault("12345678");
  } else {
    pins.common.askOn(terminal.get(), interrupt);
  }
  const auto start = std::chrono::steady_clock::now();
  Results results = runTests(options, pins, interrupt, terminal.get(), display);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  if (baseline) compareWith(*baseline, options, results);
  display.finish(results, elapsed.count());
  writeFiles(options.destinations, results);
  if (!display.complete()) throw std::runtime_error("standard output cannot be written to");
  if (interrupt.count() > 0) return interruptedStatus;
  if (isOneMissing(options)) return usageStatus;
  return results.acceptable() ? 0 : 1;
}

int runProgram(int argc, char** argv) {
  openStandardStreams();
  if (argc == 3 && std::string_view(argv[1]) == lookWord) return lookAt(argv[2]);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const CommandLine line = readCommandLine(argc, argv);
    return line.status ? *line.status : runAll(line.options);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel-run: %s\n", exception.what());
    return 2;
  }
}

}  // namespace

}  // namespace kestrel::run

int main(int argc, char** argv) {
  return kestrel::run::runProgram(argc, argv);
}
