#include "probe/ProbeOptions.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <utility>

#include "probe/Plan.h"

namespace kestrel::probe {

CommandLine readCommandLine(int argc, char** argv) {
  CommandLine line;
  Options& options = line.options;
  CLI::App app("Tries everything that a PKCS#11 module claims.", "kestrel-probe");
  app.set_version_flag("-V,--version", "kestrel-probe " KESTREL_VERSION);
  app.add_option("--token", options.token,
                 "The token's label or \"pkcs11:\" URI (default: the first)")
      ->type_name("TOKEN");
  app.add_option("--pin-file", options.pinFile, "Else KESTREL_PIN, else asked on the terminal")
      ->type_name("FILE");
  app.add_flag("--list", options.list, "Show the checks and what each expects");
  app.add_flag("--leave-objects", options.leaveObjects,
               "Also what needs objects that stay; removed at the end");
  app.add_flag("--undefined", options.undefined,
               "Also arguments that the standard leaves undefined");
  app.add_option("--init-args", options.initArguments, "The library parameters for C_Initialize")
      ->type_name("STRING");
  app.add_option("--timeout", options.timeout, "Of one check (default 10)")
      ->check(CLI::Range(0.1, 1e6).description(""))
      ->type_name("SECONDS");
  app.add_option("--json", options.json, "Write a line a check, \"-\" for standard output")
      ->type_name("FILE");
  app.add_flag("-v,--verbose", options.verbose, "Show each check, not only what is worth a line");
  app.add_option("module", options.module)->type_name("MODULE");
  app.add_option("name", options.names, "Areas, or checks by path")->type_name("NAME");
  try {
    app.parse(argc, argv);
    // A list needs no module: what stands in its place is a name, unless it is a file.
    if (options.list && !options.module.empty() &&
        !std::filesystem::is_regular_file(options.module)) {
      options.names.insert(options.names.begin(), std::exchange(options.module, ""));
    }
    if (options.module.empty() && !options.list) throw CLI::RequiredError("MODULE");
  } catch (const CLI::ParseError& error) {
    line.status = app.exit(error) == 0 ? 0 : 2;
  }
  return line;
}

}  // namespace kestrel::probe
