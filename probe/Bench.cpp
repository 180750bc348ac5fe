#include "probe/Bench.h"

#include <fmt/format.h>

#include <chrono>
#include <exception>
#include <new>

#include "probe/Keys.h"
#include "probe/Values.h"

namespace kestrel::probe {

void Bench::rememberLast() {
  finding_.call = nameOf(caller_.lastFunction);
  finding_.value = caller_.lastValue;
}

void Bench::control(CK_RV value) {
  if (value == CKR_OK) return;
  if (value == CKR_FUNCTION_NOT_SUPPORTED && caller_.lastFunction == check.function) {
    end(Verdict::absent, "");
  }
  notApplicable(fmt::format("{} {}", nameOf(caller_.lastFunction), valueText("CKR_", value)));
}

void Bench::expect(CK_RV value, const Expected& expected) {
  Verdict verdict = judge(value, expected);
  // No answer to what is undefined is a wrong one.
  if (check.undefined && verdict == Verdict::deviates) verdict = Verdict::vague;
  if (verdict == Verdict::ok) {
    if (finding_.verdict == Verdict::ok) rememberLast();
    return;
  }
  if (verdict == Verdict::vague) {
    if (finding_.verdict == Verdict::ok) rememberLast();
    finding_.verdict = Verdict::vague;
    return;
  }
  rememberLast();
  end(verdict, "");
}

void Bench::refused(CK_RV value, const Expected& expected, const char* accepted) {
  if (value == CKR_OK) {
    rememberLast();
    wrong(accepted);
  }
  expect(value, expected);
}

void Bench::work(CK_RV value, const std::string& detail) {
  if (value == CKR_OK && finding_.verdict != Verdict::ok) return;
  rememberLast();
  if (value != CKR_OK) end(Verdict::refuses, detail);
}

void Bench::end(Verdict verdict, std::string detail) {
  finding_.verdict = verdict;
  finding_.detail = std::move(detail);
  throw CheckEnded{};
}

CK_SESSION_HANDLE Bench::openSession(CK_FLAGS flags) {
  auto* const handle = memory.out<CK_SESSION_HANDLE>(CK_INVALID_HANDLE);
  if (token.readOnly) flags &= ~CK_FLAGS{CKF_RW_SESSION};
  control(p11::C_OpenSession(token.slot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, handle));
  otherSessions_.push_back(*handle);
  return *handle;
}

void Bench::explain(const CallEnded& ended) {
  finding_.call = nameOf(ended.function);
  finding_.value.reset();
  switch (ended.why) {
    case CallEnded::Why::noFunction:
      finding_.verdict = Verdict::absent;
      finding_.detail = "the list of functions has a null pointer there";
      return;
    case CallEnded::Why::exception:
      finding_.verdict = Verdict::crashed;
      finding_.detail = "an exception left the call";
      return;
    case CallEnded::Why::damage:
      finding_.verdict = Verdict::wrong;
      finding_.detail = "wrote before the room that it was given";
      return;
    case CallEnded::Why::nonsense:
      finding_.verdict = Verdict::wrong;
      finding_.value = caller_.lastValue;
      finding_.detail = "gave a length above the room that it was given";
      return;
  }
}

CK_RV Bench::logIn(CK_SESSION_HANDLE onSession, CK_USER_TYPE type) {
  if (!token.wantsLogin()) notApplicable("the token wants no login");
  const Host::Login login = host_.logIn(onSession, type);
  if (!login.value) notApplicable(login.why);
  return *login.value;
}

void Bench::elsewhere(View toSay) {
  const Finding found = host_.askCompanion(check, toSay);
  if (found.verdict == Verdict::ok) return;
  finding_ = found;
  finding_.detail += found.detail.empty() ? "in a second process" : ", in a second process";
  throw CheckEnded{};
}

Finding Bench::run(const std::function<void(Bench&)>& part) {
  const auto start = std::chrono::steady_clock::now();
  try {
    part(*this);
  } catch (const CheckEnded&) {
  } catch (const CallEnded& ended) {
    explain(ended);
  } catch (const NoKey& none) {
    finding_ = {Verdict::notApplicable, "", {}, none.why};
  } catch (const std::exception& exception) {
    finding_ = {
        Verdict::notApplicable, "", {}, fmt::format("kestrel-probe itself: {}", exception.what())};
  }
  finding_.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return finding_;
}

}  // namespace kestrel::probe
