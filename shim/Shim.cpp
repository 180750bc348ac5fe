#include "shim/Shim.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "shim/Changes.h"
#include "shim/Entries.h"

Shim shim;

Shim::Shim() noexcept {
  try {
    configure();
  } catch (const std::exception& error) {
    std::snprintf(problem_.data(), problem_.size(), "%s", error.what());
    return;
  }
  load();
}

Shim::~Shim() {
  if (used_ >= 0) close(used_);
  if (library_ != nullptr) dlclose(library_);
}

void Shim::configure() {
  settings = readSettings();
  if (settings.module == nullptr) throw std::runtime_error("KESTREL_SHIM_MODULE is not set");
  if (settings.trace != nullptr) trace.open(settings.trace);
  if (settings.used == nullptr) return;
  used_ = open(settings.used, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, DEFFILEMODE);
  if (used_ >= 0) return;
  throw std::runtime_error(std::string("cannot write '") + settings.used +
                           "': " + std::strerror(errno));
}

void Shim::load() {
  library_ = dlopen(settings.module, RTLD_LAZY | RTLD_LOCAL);
  void* symbol = library_ == nullptr ? nullptr : dlsym(library_, "C_GetFunctionList");
  getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(symbol);
  if (symbol == nullptr) {
    const char* words = dlerror();
    std::snprintf(problem_.data(), problem_.size(), "cannot load %s",
                  words == nullptr ? settings.module : words);
  } else if (getFunctionList == &C_GetFunctionList) {
    getFunctionList = nullptr;
    std::snprintf(problem_.data(), problem_.size(), "%s is this module itself", settings.module);
  }
}

bool Shim::reportsProblem() const {
  if (problem_[0] == '\0') return false;
  std::fprintf(stderr, "kestrel-shim: %s\n", problem_.data());
  return true;
}

void Shim::note(char sign, Waiver waiver) {
  TracedCall::waiver = sign == '+' ? waiverName(waiver) : nullptr;
  if (used_ < 0) return;
  TraceText line;
  line << std::string_view(&sign, 1) << waiverName(waiver) << "\n";
  if (write(used_, line.view().data(), line.view().size()) < 0) {
    std::fprintf(stderr, "kestrel-shim: cannot write '%s': %s\n", settings.used,
                 std::strerror(errno));
  }
}

namespace {

// Makes a call, with a line in the trace if there is one.
template <typename Call, typename... Arguments>
CK_RV traced(const char* name, const char* words, Call call, Arguments... arguments) {
  if (!shim.trace.isOpen()) return call();
  const TracedArgument shown[] = {arguments...};
  TracedCall line(shim.trace, name, words, shown);
  const CK_RV result = call();
  line.returned(result);
  return result;
}

// What stands in the list for an entry of the module: the same call, changed where something is to
// be changed.
template <const auto& entry, typename... Parameters>
auto wrapperOf(CK_RV (*CK_FUNCTION_LIST::* /*member*/)(Parameters...)) {
  return +[](Parameters... arguments) -> CK_RV {
    const auto call = [&]() -> CK_RV {
      const auto changed = changes.*entry.member;
      return changed != nullptr ? changed(arguments...) : ask(entry.member, arguments...);
    };
    return traced(entry.name, entry.words, call, arguments...);
  };
}

// Where there is nothing to change and no trace to write, the module's own function stays.
void wrap(CK_FUNCTION_LIST& list) {
  const bool all = shim.trace.isOpen();
#define KESTREL_SHIM_WRAP(function, words)                                     \
  if (list.function != nullptr && (all || changes.function != nullptr)) {      \
    list.function = wrapperOf<entries::function>(&CK_FUNCTION_LIST::function); \
  }
  KESTREL_SHIM_ENTRIES(KESTREL_SHIM_WRAP)
#undef KESTREL_SHIM_WRAP
  if (list.C_GetFunctionList != nullptr) list.C_GetFunctionList = C_GetFunctionList;
}

// A copy of the module's list. False where it cannot all be read: a caller is to meet that when he
// uses the list, as he would without a shim.
bool copyList(const CK_FUNCTION_LIST* list, CK_FUNCTION_LIST& copy) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    copy = *list;
    return true;
  }
  const bool copied = write(ends[1], list, sizeof copy) == sizeof copy &&
                      read(ends[0], &copy, sizeof copy) == sizeof copy;
  close(ends[0]);
  close(ends[1]);
  return copied;
}

// Without a module behind there is one entry, which says why.
CK_RV listNothing(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST nothing{};
  nothing.version = {2, 40};
  nothing.C_Initialize = [](void*) { return CK_RV{CKR_GENERAL_ERROR}; };
  *list = &nothing;
  return CKR_OK;
}

}  // namespace

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST wrapped;
  const auto call = [list] {
    return shim.getFunctionList == nullptr ? listNothing(list) : shim.getFunctionList(list);
  };
  const CK_RV result = traced("C_GetFunctionList", "list", call, static_cast<const void*>(list));
  // A module that leaves the caller's pointer alone may leave ours there, from an earlier call.
  if (result != CKR_OK || list == nullptr || *list == nullptr || *list == &wrapped) return result;
  CK_FUNCTION_LIST copy;
  if (!copyList(*list, copy)) return result;
  shim.module = *list;
  wrapped = copy;
  wrap(wrapped);
  *list = &wrapped;
  return CKR_OK;
}
