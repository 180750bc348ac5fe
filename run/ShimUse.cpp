#include "run/ShimUse.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "common/Installation.h"
#include "harness/ModulePath.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"
#include "run/process/Folder.h"
#include "run/process/Supervise.h"

namespace kestrel::run {

namespace {

namespace fs = std::filesystem;

constexpr char usedFile[] = "shim.used";
constexpr char traceFile[] = "shim.trace";
constexpr char notesFile[] = "kestrel.notes";

std::string contentOf(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  std::string text(reportLimit, '\0');
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
  text.shrink_to_fit();
  return text;
}

std::string mechanismsFor(const Test& test, std::string list) {
  constexpr std::string_view all = "signable", inParts = "multipart";
  if (!test.is(Test::signsInParts)) return list;
  for (std::size_t at; (at = list.find(all)) != list.npos;) list.replace(at, all.size(), inParts);
  return list;
}

}  // namespace

std::vector<std::string> shimEnvironment(const ShimOptions& options, const Test& test,
                                         const fs::path& module, const fs::path& folder) {
  std::vector<std::string> variables{
      fmt::format("KESTREL_SHIM_MODULE={}", module.native()),
      fmt::format("KESTREL_SHIM_USED={}", (folder / usedFile).native())};
  const auto add = [&variables](const char* name, const std::string& value) {
    variables.push_back(fmt::format("KESTREL_SHIM_{}={}", name, value));
  };
  if (options.token) add("TOKEN", *options.token);
  if (options.initArguments) add("INIT_ARGS", *options.initArguments);
  if (options.mechanisms) add("MECHANISMS", mechanismsFor(test, *options.mechanisms));
  if (!options.waivers.empty()) add("WAIVE", fmt::format("{}", fmt::join(options.waivers, ",")));
  if (options.trace) add("TRACE", (folder / traceFile).native());
  return variables;
}

void checkShim(const Options& options, Interrupt& interrupt) {
  for (const char* name :
       {"MODULE", "USED", "TOKEN", "MECHANISMS", "INIT_ARGS", "WAIVE", "TRACE"}) {
    unsetenv(fmt::format("KESTREL_SHIM_{}", name).c_str());
  }
  const TemporaryFolder folder;
  fs::create_symlink(shimModule(), folder.path() / modulePath);
  const Test& any = tests.front();  // the set-up fails before it
  Command command{options.kestrel, {std::string(any.name)}, folder.path()};
  command.environment = shimEnvironment(options.shim, any, "", folder.path());
  std::erase(command.environment, "KESTREL_SHIM_MODULE=");
  const Ended ended = supervise(command, {.interrupt = interrupt, .timeout = 10});
  const auto words = lastAfter(linesOf(ended.errors), phrase::shimSays);
  if (!words) throw std::runtime_error(fmt::format("the shim does not work: {}", ended.errors));
  if (*words != phrase::shimHasNoModule) throw std::runtime_error(std::string(*words));
}

std::string notesVariable(const fs::path& folder) {
  return fmt::format("KESTREL_NOTES={}", (folder / notesFile).native());
}

SideFiles readSideFiles(const fs::path& folder) {
  return {contentOf(folder / usedFile), contentOf(folder / traceFile),
          contentOf(folder / notesFile)};
}

}  // namespace kestrel::run
