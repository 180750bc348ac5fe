#include "run/write/Writers.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "common/Files.h"
#include "run/results/Known.h"
#include "run/write/Html.h"
#include "run/write/Json.h"
#include "run/write/Junit.h"
#include "run/write/Markdown.h"

namespace kestrel::run {

namespace {

namespace fs = std::filesystem;

struct Format {
  std::string Destinations::*path;
  std::string (*write)(const Results&);
};

constexpr std::array formats{
    Format{&Destinations::junit, toJunit},       Format{&Destinations::json, toJson},
    Format{&Destinations::markdown, toMarkdown}, Format{&Destinations::html, toHtml},
    Format{&Destinations::known, knownLines},
};

constexpr char resultsFile[] = "results.json";

// Runs every step, whatever becomes of the others, and then throws what the first threw.
class Steps {
 public:
  template <typename Step>
  void run(Step step) {
    try {
      step();
    } catch (...) {
      if (!first_) first_ = std::current_exception();
    }
  }
  void finish() const {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  std::exception_ptr first_;
};

void keepReports(const fs::path& folder, const ModuleResult& module, Steps& steps) {
  steps.run([&] { fs::create_directories(folder); });
  for (const TestResult& test : module.tests) {
    for (std::size_t i = 0; i < test.runs.size(); ++i) {
      const Run& run = test.runs[i];
      if (run.exitStatus < 0 || run.alike) continue;
      const std::string number = i == 0 ? "" : fmt::format(".{}", i + 1);
      const auto keep = [&](const char* kind, const std::string& text) {
        const fs::path file = folder / fmt::format("{}.{}{}", test.name, kind, number);
        steps.run([&] { writeFile(file, text); });
      };
      keep("report", run.report);
      if (!run.trace.empty()) keep("trace", run.trace);
    }
  }
}

}  // namespace

Results readBaseline(const std::string& folder) {
  const fs::path path = fs::path(folder) / resultsFile;
  std::ifstream stream(path, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(stream), {});
  if (!stream) throw std::system_error(errno, std::generic_category(), path);
  return fromJson(text);
}

void prepareFiles(const Destinations& destinations) {
  if (!destinations.out.empty()) {
    const fs::path results = fs::path(destinations.out) / resultsFile;
    if (!destinations.force && fs::exists(results)) {
      throw std::system_error(EEXIST, std::generic_category(), results.native() + " (see --force)");
    }
    fs::create_directories(destinations.out);
  }
  for (const Format& format : formats) {
    const fs::path path = destinations.*format.path;
    if (path.empty() || path == "-") continue;
    const fs::path folder = path.has_parent_path() ? path.parent_path() : ".";
    if (fs::is_directory(path) || access(folder.c_str(), W_OK) != 0) {
      throw std::system_error(fs::is_directory(path) ? EISDIR : errno, std::generic_category(),
                              path);
    }
  }
}

void writeFiles(const Destinations& destinations, const Results& results) {
  Steps steps;
  if (!destinations.out.empty()) {
    const fs::path out = destinations.out;
    for (const ModuleResult& module : results.modules)
      keepReports(out / module.name, module, steps);
    steps.run([&] { writeFile(out / resultsFile, toJson(results)); });
  }
  for (const Format& format : formats) {
    const std::string& path = destinations.*format.path;
    if (!path.empty()) steps.run([&] { writeFile(path, format.write(results)); });
  }
  steps.finish();
}

bool usesStandardOutput(const Destinations& destinations) {
  return std::any_of(formats.begin(), formats.end(),
                     [&](const Format& format) { return destinations.*format.path == "-"; });
}

}  // namespace kestrel::run
