// What a check works with, and by which it says what it found.
#pragma once

#include <string>
#include <vector>

#include "probe/Calls.h"
#include "probe/Check.h"

namespace kestrel::probe {

class Keys;

// Thrown through a check that has its verdict.
struct CheckEnded {};

class Bench {
 public:
  Bench(Caller& caller, const TokenFacts& facts, Keys& keyMaker, const Check& ofCheck)
      : memory(caller.memory), token(facts), keys(keyMaker), check(ofCheck), caller_(caller) {}
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

  // Runs the check. Whatever leaves it by an exception becomes a verdict.
  Finding run();

 private:
  void rememberLast();
  void explain(const CallEnded& ended);

  Caller& caller_;
  std::vector<CK_SESSION_HANDLE> otherSessions_;
  Finding finding_;
};

}  // namespace kestrel::probe
