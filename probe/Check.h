// A check: the smallest thing that has a verdict.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "probe/Expected.h"
#include "probe/Functions.h"
#include "probe/Verdict.h"

namespace kestrel::probe {

class Bench;

// What a check finds when it begins. Each but `finalized` has all that is before it.
enum class Stage {
  loaded,       // the module, not initialised
  finalized,    // initialised and finalised: a way of its own
  initialized,  // C_Initialize was called
  session,      // the token has a session of the check's own, and nobody is logged in
  user,         // and the user is, if the token wants that
};

// A mechanism without which there is nothing to check, and what the token has to claim of it.
struct NeededMechanism {
  CK_MECHANISM_TYPE type;
  CK_FLAGS flag = 0;
};

struct Check {
  std::string path;  // area first: "errors/C_SignUpdate/not-begun"
  Stage stage = Stage::user;
  Expected expected = {CKR_OK};  // of the call that decides
  std::string_view clause = {};  // the title under which PKCS #11 says so
  std::function<void(Bench&)> run = {};
  std::optional<NeededMechanism> mechanism = {};
  FunctionId function = FunctionId::count;  // without which there is nothing to check
  // What a second process does on demand (Bench::elsewhere): from Stage::session, not logged in.
  std::function<void(Bench&)> elsewhere = {};

  bool undefined = false;  // its arguments are left undefined: only with --undefined
  bool leaves = false;     // objects on the token, while it runs: only with --leave-objects
  bool onlyNamed = false;  // not run by default
  bool spoils = false;     // what comes after it needs a new process
};

using Plan = std::vector<Check>;

// What came of a check.
struct Finding {
  Verdict verdict = Verdict::ok;
  std::string call;  // that decided; empty for none
  std::optional<CK_RV> value = {};
  std::string detail = {};  // a sentence, or empty
  double seconds = 0;
};

}  // namespace kestrel::probe
