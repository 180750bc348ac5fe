#include "token/State.h"

#include <algorithm>

#include "token/Harm.h"

namespace kestrel::token {

namespace {

bool processEnds = false;

void harmAt(const char* directive) {
  doHarm(token().config.settings.text(directive, ""));
}

// A static object goes before the module's destructor when the process ends, and behind it when the
// module is unloaded: then nobody is left who could still be in a call.
struct StaticObject {
  const std::string harm = token().config.settings.text("static", "");
  ~StaticObject() noexcept(false) {
    processEnds = true;
    doHarm(harm);
  }
} staticObject;

// The module's own constructor and destructor.
__attribute__((constructor)) void load() {
  harmAt("load");
}
__attribute__((destructor)) void unload() {
  harmAt("unload");
  if (!processEnds) delete &token();
}

}  // namespace

Token& token() {
  static Token* const instance = new Token;
  return *instance;
}

void finalize() {
  token().initialized = false;
  ++token().finalizations;
  for (Slot& slot : token().config.slots) closeSessions(slot);
}

void closeSessions(Slot& slot, CK_SESSION_HANDLE only) {
  const auto onSlot = [&](const auto& entry) { return entry.second.slot == &slot; };
  std::erase_if(token().sessions, [&](const auto& entry) {
    return onSlot(entry) && (only == 0 || only == entry.first);
  });
  if (std::ranges::any_of(token().sessions, onSlot)) return;
  slot.loggedIn = false;
  slot.logouts = 0;
}

void logOut(Slot& slot) {
  slot.loggedIn = false;
  ++slot.logouts;
  for (auto& [handle, session] : token().sessions) {
    if (session.slot != &slot) continue;
    session.sign = {};
    session.decrypt = {};
    session.contextLoggedIn = session.contextRefused = false;
  }
}

}  // namespace kestrel::token
