#include "shim/Shim.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "shim/CallersMemory.h"
#include "shim/Changes.h"
#include "shim/Entries.h"
#include "shim/TraceText.h"
#include "shim/TracedCall.h"

namespace {

// At the end of the process this object is destroyed before the destructors of the file are run, at
// dlclose() behind them. A dlclose() among the last exit handlers is taken for the end.
bool processEnds = false;
const struct End {
  ~End() { processEnds = true; }
} end;

alignas(Shim) std::byte storage[sizeof(Shim)];

__attribute__((destructor)) void unload() {
  if (!processEnds) shim.~Shim();
}

}  // namespace

Shim& shim = *::new (storage) Shim;

Shim::Shim() {
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
  changes = changesFor(settings);
  if (settings.used == nullptr) return;
  used_ = open(settings.used, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, DEFFILEMODE);
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
    dlclose(std::exchange(library_, nullptr));  // which would keep itself loaded
    std::snprintf(problem_.data(), problem_.size(), "%s is this module itself", settings.module);
  }
}

void Shim::reportProblem() const {
  if (problem_[0] != '\0') std::fprintf(stderr, "kestrel-shim: %s\n", problem_.data());
}

void Shim::note(char sign, Waiver waiver) {
  TracedCall::waived.set(static_cast<std::size_t>(waiver), sign == '+');
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
      const auto changed = shim.changes.*entry.member;
      return changed != nullptr ? changed(arguments...) : ask(entry.member, arguments...);
    };
    return traced(entry.name, entry.words, call, arguments...);
  };
}

// Where there is nothing to change and no trace to write, the module's own function stays. The list
// is one of PKCS#11 2.40 whatever the module's is: there is no more behind the copy.
void wrap(CK_FUNCTION_LIST& list) {
  const bool all = shim.trace.isOpen();
#define KESTREL_SHIM_WRAP(function, words)                                     \
  if (list.function != nullptr && (all || shim.changes.function != nullptr)) { \
    list.function = wrapperOf<entries::function>(&CK_FUNCTION_LIST::function); \
  }
  KESTREL_SHIM_ENTRIES(KESTREL_SHIM_WRAP)
#undef KESTREL_SHIM_WRAP
  if (list.C_GetFunctionList != nullptr) list.C_GetFunctionList = C_GetFunctionList;
  if (list.version.major > 2) list.version = {2, 40};
}

template <typename... Parameters>
auto stubOf(CK_RV (*CK_FUNCTION_LIST::* /*member*/)(Parameters...)) {
  return +[](Parameters...) -> CK_RV { return CKR_CRYPTOKI_NOT_INITIALIZED; };
}

// Without a module behind, a list that cannot be initialized, and says why.
CK_FUNCTION_LIST listOfStubs() {
  CK_FUNCTION_LIST list{};
  list.version = {2, 40};
#define KESTREL_SHIM_STUB(function, words) list.function = stubOf(&CK_FUNCTION_LIST::function);
  KESTREL_SHIM_ENTRIES(KESTREL_SHIM_STUB)
#undef KESTREL_SHIM_STUB
  list.C_GetFunctionList = C_GetFunctionList;
  list.C_Initialize = [](void*) -> CK_RV {
    shim.reportProblem();
    return CKR_GENERAL_ERROR;
  };
  return list;
}

CK_RV listStubs(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST stubs = listOfStubs();
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  *list = &stubs;
  return CKR_OK;
}

// Writes only what differs: other threads may be calling the rest.
void update(CK_FUNCTION_LIST& list, const CK_FUNCTION_LIST& latest) {
  list.version = latest.version;
  list.C_GetFunctionList = latest.C_GetFunctionList;
#define KESTREL_SHIM_UPDATE(function, words) \
  if (list.function != latest.function) list.function = latest.function;
  KESTREL_SHIM_ENTRIES(KESTREL_SHIM_UPDATE)
#undef KESTREL_SHIM_UPDATE
}

// The list that callers get for the module's; null where that cannot all be read, which a caller is
// to meet when he uses the list, as he would without a shim.
CK_FUNCTION_LIST* wrapped(CK_FUNCTION_LIST* list) {
  static std::mutex mutex;
  static CK_FUNCTION_LIST ours;
  if (list == &ours) return list;  // left there by a module that leaves the caller's pointer alone
  auto copy = valueAt<CK_FUNCTION_LIST>(list);
  if (!copy) return nullptr;
  wrap(*copy);
  const std::lock_guard lock(mutex);
  shim.module = list;
  update(ours, *copy);
  return &ours;
}

}  // namespace

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  const auto call = [list] {
    return shim.getFunctionList == nullptr ? listStubs(list) : shim.getFunctionList(list);
  };
  const CK_RV result = traced("C_GetFunctionList", "list", call, static_cast<const void*>(list));
  const auto listed = valueAt<void*>(list);
  if (result != CKR_OK || !listed) return result;
  if (CK_FUNCTION_LIST* const ours = wrapped(static_cast<CK_FUNCTION_LIST*>(*listed))) *list = ours;
  return result;
}
