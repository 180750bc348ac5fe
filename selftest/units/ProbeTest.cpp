// The engine of kestrel-probe: what becomes of a check whatever the module does in its call.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "probe/Bench.h"
#include "probe/Expected.h"
#include "probe/Returns.h"
#include "probe/Supervisor.h"
#include "run/process/Orphans.h"

namespace kestrel::probe {

namespace {

TEST(Probe, AValueIsJudgedByWhatTheSituationPermits) {
  const Expected failure{CKR_KEY_HANDLE_INVALID, CKR_ARGUMENTS_BAD}, work{CKR_OK};
  const struct {
    CK_RV value;
    const Expected& expected;
    Verdict verdict;
  } rows[] = {
      {CKR_KEY_HANDLE_INVALID, failure, Verdict::ok},
      {CKR_ARGUMENTS_BAD, failure, Verdict::vague},
      {CKR_GENERAL_ERROR, failure, Verdict::vague},
      {CKR_FUNCTION_NOT_SUPPORTED, failure, Verdict::absent},
      {CKR_OK, failure, Verdict::deviates},
      {CKR_KEY_HANDLE_INVALID | CK_RV{1} << 32, failure, Verdict::deviates},
      {CKR_OK, work, Verdict::ok},
      {CKR_DEVICE_ERROR, work, Verdict::deviates},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(judge(row.value, row.expected), row.verdict) << std::hex << row.value;
  }
}

TEST(Probe, AValueIsHeldAgainstTheFunctionsList) {
  using enum FunctionId;
  const struct {
    FunctionId function;
    CK_RV value;
    bool version3;
    Listing listing;
  } rows[] = {
      {C_Sign, CKR_OK, false, Listing::listed},
      {C_Sign, CKR_DATA_LEN_RANGE, false, Listing::listed},
      {C_Sign, CKR_KEY_HANDLE_INVALID, false, Listing::unlisted},
      {C_Sign, CKR_NO_EVENT, false, Listing::elsewhere},
      {C_WaitForSlotEvent, CKR_NO_EVENT, false, Listing::listed},
      {C_Sign, 0x7fffffff, false, Listing::undefined},
      {C_Sign, CK_RV{1} << 32, false, Listing::undefined},
      {C_Sign, CKR_VENDOR_DEFINED + 5, false, Listing::listed},
      {C_Sign, CKR_FUNCTION_NOT_SUPPORTED, false, Listing::listed},
      {C_Sign, CKR_TOKEN_RESOURCE_EXCEEDED, false, Listing::unlisted},
      {C_Sign, CKR_TOKEN_RESOURCE_EXCEEDED, true, Listing::listed},
      {C_CancelFunction, CKR_OK, false, Listing::unlisted},
      {C_CancelFunction, CKR_FUNCTION_NOT_PARALLEL, false, Listing::listed},
      {C_MessageVerifyFinal, CKR_DATA_LEN_RANGE, true, Listing::listed},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(listingOf(row.function, row.value, row.version3), row.listing)
        << nameOf(row.function) << std::hex << " " << row.value;
  }
}

// What a module may do in a call that is given 4 bytes of data and room for 4 bytes.
CK_RV runFake(Bench& bench,
              CK_RV (*fake)(CK_SESSION_HANDLE, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*)) {
  auto* const length = bench.memory.out<CK_ULONG>(4);
  return callModule(FunctionId::C_Sign, fake, CK_SESSION_HANDLE{1}, bench.memory.in("data"),
                    CK_ULONG{4}, bench.memory.bytes(4), length);
}

using Session = CK_SESSION_HANDLE;

template <typename Fake>
Check fakeCheck(Fake fake) {
  Check check{"fake", Stage::loaded};
  check.run = [fake](Bench& bench) { bench.expect(runFake(bench, fake)); };
  return check;
}

// The same in a second process, which hears what the first one says.
Check movedElsewhere(const Check& check) {
  Check moved{"moved", Stage::loaded};
  moved.run = [](Bench& bench) { bench.elsewhere("heard"); };
  moved.elsewhere = [check](Bench& bench) {
    if (bench.message == "heard") check.run(bench);
  };
  return moved;
}

TEST(Probe, EachEndOfACallIsAVerdictAndTheNextCheckRuns) {
  const auto fine = [](Session, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG* length) -> CK_RV {
    out[0] = out[3] = 1;
    *length = 4;
    return CKR_OK;
  };
  const struct {
    Check check;
    Verdict verdict;
    const char* detail;
  } rows[] = {
      {fakeCheck(fine), Verdict::ok, ""},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG*) -> CK_RV {
         out[4] = 0;
         return CKR_OK;
       }),
       Verdict::wrong, "wrote behind the end of the room that it was given"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG*) -> CK_RV {
         out[-1] = 0;
         return CKR_OK;
       }),
       Verdict::wrong, "wrote before the room that it was given"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE* out, CK_ULONG*) -> CK_RV {
         out[-5000] = 0;
         return CKR_OK;
       }),
       Verdict::wrong, "wrote before the room that it was given"},
      {fakeCheck([](Session, CK_BYTE* data, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV {
         data[3] = 0;
         return CKR_OK;
       }),
       Verdict::wrong, "wrote into data that it may only read"},
      {fakeCheck([](Session, CK_BYTE* data, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV {
         return *const_cast<volatile CK_BYTE*>(data + 4);
       }),
       Verdict::wrong, "read behind the end of what it was given"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG* length) -> CK_RV {
         *length = 5;
         return CKR_OK;
       }),
       Verdict::wrong, "gave a length above the room that it was given"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV {
         return static_cast<CK_RV>(raise(SIGSEGV));
       }),
       Verdict::crashed, "SIGSEGV"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV {
         return static_cast<CK_RV>(raise(SIGKILL));
       }),
       Verdict::crashed, "SIGKILL"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV { _exit(0); }),
       Verdict::crashed, "ended the process with exit status 0"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV { throw 1; }),
       Verdict::crashed, "an exception left the call"},
      {fakeCheck([](Session, CK_BYTE*, CK_ULONG, CK_BYTE*, CK_ULONG*) -> CK_RV {
         for (;;) pause();
       }),
       Verdict::hung, "ended after 0.3 s"},
      {fakeCheck(fine), Verdict::ok, ""},
  };
  for (const bool elsewhere : {false, true}) {
    Plan plan;
    for (const auto& row : rows) plan.push_back(elsewhere ? movedElsewhere(row.check) : row.check);
    Interrupt interrupt;
    Supervisor supervisor(makeBoard(), interrupt, 0.3, {});
    Target target;
    target.module = TOKEN;
    target.token.slot = 1;
    const std::vector<Finding> findings = supervisor.run(target, plan, {});
    ASSERT_EQ(findings.size(), std::size(rows));
    for (std::size_t i = 0; i < findings.size(); ++i) {
      EXPECT_EQ(findings[i].verdict, rows[i].verdict) << i << ": " << findings[i].detail;
      EXPECT_TRUE(findings[i].detail.starts_with(rows[i].detail)) << i << findings[i].detail;
      EXPECT_TRUE(elsewhere || findings[i].detail == rows[i].detail) << i << findings[i].detail;
      const bool silent = elsewhere && rows[i].verdict == Verdict::ok;
      EXPECT_EQ(findings[i].call, silent ? "" : "C_Sign") << i;
    }
  }
  EXPECT_TRUE(childProcesses().empty());
}

// A stage that cannot be reached costs two tries, not one a check.
TEST(Probe, WhatCannotBeReachedIsNotApplicable) {
  setenv("KESTREL_TOKEN", "C_Initialize=5", 1);
  Plan plan;
  for (const Stage stage : {Stage::initialized, Stage::session, Stage::loaded, Stage::finalized}) {
    plan.push_back({"check", stage, {CKR_OK}, "", [](Bench&) {}});
  }
  Interrupt interrupt;
  Supervisor supervisor(makeBoard(), interrupt, 5, {});
  Target target;
  target.module = TOKEN;
  const std::vector<Finding> findings = supervisor.run(target, plan, {});
  unsetenv("KESTREL_TOKEN");
  ASSERT_EQ(findings.size(), plan.size());
  for (std::size_t i = 0; i < findings.size(); ++i) {
    const bool reached = plan[i].stage == Stage::loaded;
    EXPECT_EQ(findings[i].verdict, reached ? Verdict::ok : Verdict::notApplicable) << i;
    EXPECT_EQ(findings[i].detail.empty(), reached) << findings[i].detail;
  }
}

TEST(Probe, AMistakeInACheckIsNoFindingOfTheModule) {
  CK_ULONG unguarded = 0;
  Check check{"mistake", Stage::loaded};
  check.run = [&](Bench& bench) { bench.expect(p11::C_GetSlotList(CK_TRUE, nullptr, &unguarded)); };
  Interrupt interrupt;
  Supervisor supervisor(makeBoard(), interrupt, 5, {});
  Target target;
  target.module = TOKEN;
  const std::vector<Finding> findings = supervisor.run(target, {check}, {});
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].verdict, Verdict::notApplicable);
  EXPECT_EQ(findings[0].detail,
            "kestrel-probe itself: C_GetSlotList was given memory that is not guarded");
}

}  // namespace

}  // namespace kestrel::probe
