// What a check works with, and by which it says what it found.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "probe/Calls.h"
#include "probe/Check.h"
#include "probe/Outside.h"

namespace kestrel::probe {

class Keys;

// What a check may ask of the process that it runs in.
class Host {
 public:
  // C_Login with the PIN that was proven. Nothing, with the reason, where there is none to give.
  struct Login {
    std::optional<CK_RV> value;
    std::string why;
  };
  virtual Login logIn(CK_SESSION_HANDLE session, CK_USER_TYPE type) = 0;

  // C_Initialize, as it is called for every check.
  virtual CK_RV initialize() = 0;

  // Has the check's `elsewhere` done by another process, once.
  virtual Finding askCompanion(const Check& check, View message) = 0;

 protected:
  ~Host() = default;
};

// Thrown through a check that has its verdict.
struct CheckEnded {};

class Bench {
 public:
  Bench(Caller& caller, const TokenFacts& facts, Keys& keyMaker, const Check& ofCheck, Host& host)
      : memory(caller.memory),
        token(facts),
        keys(keyMaker),
        check(ofCheck),
        caller_(caller),
        host_(host) {}
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  Memory& memory;  // what is made in it is gone when the check has ended
  const TokenFacts& token;
  Keys& keys;
  const Check& check;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;  // the check's own, from Stage::session on

  // The positive control: without CKR_OK the check is not applicable, and says which call refused.
  void control(CK_RV value);

  // The call that decides: judged against what the check expects, or against `expected`. A value
  // that is permitted but vague is remembered and lets the check go on; others end it.
  void expect(CK_RV value) { expect(value, check.expected); }
  void expect(CK_RV value, const Expected& expected);

  // Something was changed and is to be refused, with one of these values; `accepted` says what it
  // means that it was not.
  void refused(CK_RV value, const Expected& expected, const char* accepted);

  // What the token claims to do: without CKR_OK it refuses. `detail` says what was asked of it.
  void work(CK_RV value, const std::string& detail = {});

  // Ends the check. `detail` is a sentence without its full stop.
  [[noreturn]] void end(Verdict verdict, std::string detail);
  [[noreturn]] void wrong(std::string detail) { end(Verdict::wrong, std::move(detail)); }
  [[noreturn]] void notApplicable(std::string detail) {
    finding_.value.reset();
    finding_.call.clear();
    end(Verdict::notApplicable, std::move(detail));
  }
  void require(bool right, const char* detail) {
    if (!right) wrong(detail);
  }

  // A session besides the check's own, open until the check has ended.
  CK_SESSION_HANDLE openSession(CK_FLAGS flags = CKF_RW_SESSION);
  const std::vector<CK_SESSION_HANDLE>& otherSessions() const { return otherSessions_; }

  // C_Login with the right PIN, which is never tried where it was refused. Ends the check where the
  // token wants no login or there is no PIN.
  CK_RV logIn(CK_SESSION_HANDLE session, CK_USER_TYPE type = CKU_USER);

  // C_Initialize, as it is called for every check.
  CK_RV initialize() { return host_.initialize(); }

  // Has the check's `elsewhere` done in a process that loads the module itself, with `message` as
  // its own; when it returns, that process has called C_Finalize and ended. Ends the check with
  // what was found there, unless that is ok.
  void elsewhere(View message = {});
  Bytes message;

  // Runs the check, or the part of it that belongs into another process. Whatever leaves it by an
  // exception becomes a verdict.
  Finding run() { return run(check.run); }
  Finding run(const std::function<void(Bench&)>& part);

 private:
  void rememberLast();
  void explain(const CallEnded& ended);

  Caller& caller_;
  Host& host_;
  std::vector<CK_SESSION_HANDLE> otherSessions_;
  Finding finding_;
};

}  // namespace kestrel::probe
