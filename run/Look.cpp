#include "run/Look.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>

#include "common/Installation.h"
#include "harness/Openssl.h"
#include "harness/Pkcs11.h"
#include "run/ShimUse.h"
#include "run/process/Folder.h"
#include "run/process/Supervise.h"

namespace kestrel::run {

namespace {

constexpr double patience = 10;      // seconds
constexpr CK_ULONG mostSlots = 256;  // that are looked at

std::string textOf(const CK_UTF8CHAR* bytes, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(bytes), size);
  text.erase(text.find_last_not_of(std::string_view(" \0", 2)) + 1);
  return text;
}

std::string textOf(const CK_VERSION& version) {
  return fmt::format("{}.{}", version.major, version.minor);
}

std::vector<CK_SLOT_ID> slotsOf(CK_FUNCTION_LIST& module) {
  CK_ULONG count = 0;
  if (module.C_GetSlotList(CK_FALSE, nullptr, &count) != CKR_OK) return {};
  const CK_ULONG room = std::min(count, mostSlots);
  // A module that ignores the room finds some behind it.
  std::vector<CK_SLOT_ID> slots(mostSlots);
  count = mostSlots;
  if (module.C_GetSlotList(CK_FALSE, slots.data(), &count) != CKR_OK) return {};
  slots.resize(std::min(count, room));
  return slots;
}

ModuleFacts factsOf(CK_FUNCTION_LIST& module) {
  ModuleFacts facts;
  CK_INFO info{};
  if (module.C_GetInfo(&info) == CKR_OK) {
    facts.library = textOf(info.libraryDescription, sizeof info.libraryDescription);
    facts.version = textOf(info.libraryVersion);
  }
  const std::vector<CK_SLOT_ID> slots = slotsOf(module);
  for (std::size_t position = 0; position < slots.size(); ++position) {
    CK_TOKEN_INFO token{};
    if (module.C_GetTokenInfo(slots[position], &token) != CKR_OK) continue;
    facts.tokens.push_back({position, textOf(token.label, sizeof token.label),
                            textOf(token.model, sizeof token.model),
                            textOf(token.serialNumber, sizeof token.serialNumber),
                            textOf(token.firmwareVersion), token.flags});
  }
  return facts;
}

std::string sha256Of(const std::filesystem::path& path) {
  const DigestContextOwner context(EVP_MD_CTX_new());
  std::ifstream file(path, std::ios::binary);
  std::array<char, 65536> part{};
  EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
  while (file.read(part.data(), part.size()), file.gcount() > 0) {
    EVP_DigestUpdate(context.get(), part.data(), static_cast<std::size_t>(file.gcount()));
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &length);
  std::string text;
  for (unsigned i = 0; i < length; ++i) text += fmt::format("{:02x}", digest[i]);
  return text;
}

}  // namespace

int lookAt(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return 1;
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  CK_FUNCTION_LIST* module = nullptr;
  if (entry == nullptr || entry(&module) != CKR_OK || module == nullptr ||
      module->C_Initialize(nullptr) != CKR_OK) {
    return 1;
  }
  // On a line of its own, whatever the module has printed.
  std::printf("\n%s\n", toJson(factsOf(*module)).c_str());
  std::fflush(stdout);
  module->C_Finalize(nullptr);
  return 0;
}

ModuleFacts look(const Options& options, const NamedModule& module, Interrupt& interrupt) {
  const TemporaryFolder folder;
  const bool between = options.shim.isAsked();
  Command command{"/proc/self/exe",
                  {lookWord, between ? shimModule().native() : module.path.native()},
                  folder.path()};
  if (between) {
    command.environment = shimEnvironment(options.shim, tests.front(), module.path, folder.path());
  }
  const Ended ended = supervise(command, {.interrupt = interrupt, .timeout = patience});
  const std::size_t end = ended.report.rfind('\n');
  const std::size_t line =
      end == std::string::npos || end == 0 ? std::string::npos : ended.report.rfind('\n', end - 1);
  ModuleFacts facts;
  if (line != std::string::npos) facts = factsFromJson(ended.report.substr(line + 1));
  facts.sha256 = sha256Of(module.path);
  return facts;
}

}  // namespace kestrel::run
