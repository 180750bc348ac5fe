#include "run/Options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <system_error>

#include "common/Installation.h"

namespace kestrel::run {

namespace {

namespace fs = std::filesystem;

std::vector<const Test*> selectTests(const std::vector<std::string>& names) {
  std::vector<const Test*> selected;
  const auto add = [&selected](const Test* test) {
    if (std::ranges::find(selected, test) == selected.end()) selected.push_back(test);
  };
  for (const std::string& name : names) {
    if (name != "all") add(findTest(name));
    for (const Test& test : tests) {
      if (name == "all" && test.is(Test::inAll)) add(&test);
    }
  }
  return selected;
}

std::string knownTest(const std::string& name) {
  return name == "all" || findTest(name) != nullptr ? "" : "no test matches '" + name + "'";
}

// Where kestrel runs the folder is another one.
fs::path programAt(const std::string& path) {
  if (access(path.c_str(), X_OK) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return fs::absolute(path);
}

// What the options are made of.
struct Words {
  std::vector<std::string> tests{"all"}, modules;
  std::string kestrel;
};

void addRunOptions(CLI::App& app, Words& words, Options& options) {
  app.set_version_flag("-V,--version", "kestrel-run " KESTREL_VERSION);
  app.add_option("-t,--test", words.tests,
                 "Run this test (repeatable; default: the twelve of \"all\")")
      ->type_name("NAME")
      ->allow_extra_args(false)
      ->check(CLI::Validator(knownTest, ""));
  app.add_flag("-a,--every-key", options.everyKey, "Hand \"-a\" to kestrel");
  app.add_option("--pin-file", options.pinFiles,
                 "PINs, a line each, from slot position 0 on; an empty line for none (repeatable)")
      ->type_name("[NAME=]FILE")
      ->allow_extra_args(false);
  app.add_flag("--last-try", options.lastTry, "Log in also where one try is left");
  app.add_option("--timeout", options.timeout, "Of one test (default 120, 0 for none)")
      ->check(CLI::Range(0.0, 1e6).description(""))
      ->type_name("SECONDS");
  app.add_option("--repeat", options.repeat, "Run each test N times")
      ->check(CLI::Range(1u, 1000000u).description(""))
      ->type_name("N");
  app.add_option("--between", options.between, "Run by the shell after each test")
      ->type_name("COMMAND");
}

void addShimOptions(CLI::App& app, ShimOptions& shim) {
  app.add_option("--token", shim.token, "Only the tokens of this label or \"pkcs11:\" URI")
      ->type_name("TOKEN");
  app.add_option("--mechanisms", shim.mechanisms,
                 "Only these: names, numbers, \"signable\" or \"multipart\"; \"-\" leaves one out")
      ->type_name("LIST");
  app.add_option("--init-args", shim.initArguments, "The library parameters for C_Initialize")
      ->type_name("STRING");
  app.add_option("--waive", shim.waivers,
                 "Step over a known deviation (repeatable), or over all of them with \"all\"")
      ->type_name("NAME")
      ->allow_extra_args(false);
  app.add_flag("--trace", shim.trace, "Record each call with its arguments and its time");
}

void addResultOptions(CLI::App& app, Options& options) {
  Destinations& destinations = options.destinations;
  app.add_option("-o,--out", destinations.out, "Keep every report, and the results as results.json")
      ->type_name("DIR");
  app.add_flag("--force", destinations.force, "Write over the results that --out has already");
  app.add_option("--baseline", options.baseline, "Compare with an earlier --out")->type_name("DIR");
  app.add_option_function<std::string>(
         "--fail-on",
         [&options](const std::string& word) { options.changedFails = word == "changed"; },
         "What of a comparison fails: \"broken\", or \"changed\" as well (default)")
      ->type_name("WORD")
      ->check(CLI::IsMember({"broken", "changed"}).description(""));
  app.add_option("--known", options.known, "Failures that are known, a line each")
      ->type_name("FILE");
  const auto file = [&app](const char* name, std::string& path, const char* text) {
    app.add_option(name, path, text)->type_name("FILE");
  };
  file("--junit", destinations.junit, "Write JUnit XML (\"-\" is standard output, also below)");
  file("--json", destinations.json, "Write the results as JSON");
  file("--markdown", destinations.markdown, "Write the table as Markdown");
  file("--html", destinations.html, "Write a page to look at");
  file("--write-known", destinations.known, "Write what has not passed, for --known");
}

void addOtherOptions(CLI::App& app, Words& words, Options& options) {
  app.add_option("--kestrel", words.kestrel,
                 "The kestrel to run (default: beside kestrel-run, then PATH)")
      ->type_name("PATH");
  app.add_flag("-q,--quiet", options.quiet, "Show only what did not pass, and the totals");
  app.add_option("module", words.modules, "Default: the software token")
      ->type_name("[NAME=]MODULE");
}

// The library would take the next argument for the value of "--name=".
const char* withoutValue(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument.starts_with("--") && argument.find('=') == argument.size() - 1) return argv[i];
  }
  return nullptr;
}

}  // namespace

std::vector<std::string> ShimOptions::words() const {
  std::vector<std::string> all;
  if (token) all.push_back("--token " + *token);
  if (mechanisms) all.push_back("--mechanisms " + *mechanisms);
  if (initArguments) all.push_back("--init-args " + *initArguments);
  for (const std::string& waiver : waivers) all.push_back("--waive " + waiver);
  return all;
}

CommandLine readCommandLine(int argc, char** argv) {
  CommandLine line;
  Options& options = line.options;
  Words words;
  CLI::App app("Runs the tests of kestrel on PKCS#11 modules and says what came of each.",
               "kestrel-run");
  addRunOptions(app, words, options);
  addShimOptions(app, options.shim);
  addResultOptions(app, options);
  addOtherOptions(app, words, options);
  if (const char* argument = withoutValue(argc, argv)) {
    std::fprintf(stderr, "%s: no value\n", argument);
    line.status = 2;
    return line;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    line.status = app.exit(error) == 0 ? 0 : 2;
    return line;
  }
  options.tests = selectTests(words.tests);
  options.kestrel = words.kestrel.empty() ? findKestrel() : programAt(words.kestrel);
  options.ownToken = words.modules.empty();
  options.modules =
      words.modules.empty() ? std::vector{softwareToken()} : nameModules(words.modules);
  return line;
}

}  // namespace kestrel::run
