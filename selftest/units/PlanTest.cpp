// The checks of kestrel-probe as a whole: what is in the plan, and what is chosen from it.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "probe/Plan.h"

namespace kestrel::probe {

namespace {

Plan all() {
  Options options;
  options.list = options.undefined = options.leaveObjects = true;
  return makePlan(options, nullptr);
}

// A path is what two runs are compared by, and what a person types.
TEST(Plan, EveryCheckHasAPathAClauseAndAnExpectationOfItsOwn) {
  std::set<std::string> paths;
  for (const Check& check : all()) {
    constexpr const char* letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-/";
    EXPECT_EQ(check.path.find_first_not_of(letters), std::string::npos) << check.path;
    EXPECT_EQ(check.path.find("//"), std::string::npos) << check.path;
    EXPECT_TRUE(paths.insert(check.path).second) << check.path << " twice";
    EXPECT_FALSE(check.clause.empty()) << check.path;
    EXPECT_GT(check.expected.size(), 0u) << check.path;
    EXPECT_TRUE(check.run != nullptr) << check.path;
    const std::set<CK_RV> values(check.expected.begin(), check.expected.end());
    EXPECT_EQ(values.size(), check.expected.size()) << check.path << " expects a value twice";
    const bool within = std::ranges::any_of(areas(), [&](const Area& area) {
      return check.path.starts_with(std::string(area.name) + "/");
    });
    EXPECT_TRUE(within) << check.path << " is in no area";
  }
}

TEST(Plan, ReachesEveryFunctionAndMostMechanisms) {
  const Plan plan = all();
  const Coverage coverage = coverageOf(plan);
  EXPECT_EQ(coverage.functions, 68u);
  EXPECT_GE(coverage.mechanisms, 90u);
  const auto rows = std::ranges::count_if(plan, [](const Check& check) {
    return check.path.starts_with("errors/") || check.path.starts_with("buffers/");
  });
  EXPECT_GE(rows, 400);
}

TEST(Plan, NamesChooseAreasBeginningsAndChecks) {
  const struct {
    std::vector<std::string> names;
    bool undefined;
    const char* in;   // a path that is chosen
    const char* out;  // and one that is not
  } rows[] = {
      {{}, false, "errors/C_Sign/ended", "errors/C_Sign/null-data"},
      {{}, true, "errors/C_Sign/null-data", "errors/C_CreateObject/read-only-session"},
      {{"buffers"}, false, "buffers/C_Sign/exact", "errors/C_Sign/ended"},
      {{"errors/C_Sign"}, false, "errors/C_Sign/ended", "errors/C_SignInit/twice"},
      {{"errors/C_Sign/ended"}, false, "errors/C_Sign/ended", "errors/C_Sign/not-begun"},
      {{"errors/C_Sign", "buffers"}, false, "buffers/C_Sign/exact", "errors/C_Verify/ended"},
  };
  for (const auto& row : rows) {
    Options options;
    options.list = true;
    options.names = row.names;
    options.undefined = row.undefined;
    const Plan plan = makePlan(options, nullptr);
    const auto holds = [&](const char* path) {
      return std::ranges::any_of(plan, [&](const Check& check) { return check.path == path; });
    };
    EXPECT_TRUE(holds(row.in)) << row.in;
    EXPECT_FALSE(holds(row.out)) << row.out;
  }
  for (const char* none : {"nothing", "errors/C_Sig", "errors/", "", "errors/C_Sign/ended/x"}) {
    Options options;
    options.list = true;
    options.names = {none};
    EXPECT_THROW(makePlan(options, nullptr), std::runtime_error) << none;
  }
}

// What a token does not claim is settled without a process.
TEST(Plan, WhatATokenDoesNotClaimIsAbsent) {
  TokenFacts facts;
  facts.known = facts.mechanismsKnown = true;
  facts.offered.fill(true);
  facts.offered[static_cast<std::size_t>(FunctionId::C_DigestKey)] = false;
  facts.mechanismCount = 2;
  facts.mechanisms[0] = {CKM_SHA256, {0, 0, CKF_DIGEST}, CKR_OK};
  facts.mechanisms[1] = {CKM_VENDOR_DEFINED + 7, {0, 0, CKF_SIGN}, CKR_OK};
  const Plan plan = makePlan({}, &facts);
  const auto settled = settle(plan, facts);
  ASSERT_EQ(settled.size(), plan.size());
  const auto verdictOf = [&](std::string_view path) {
    for (std::size_t i = 0; i < plan.size(); ++i) {
      if (plan[i].path == path) return settled[i] ? settled[i]->verdict : Verdict::ok;
    }
    ADD_FAILURE() << path << " is not in the plan";
    return Verdict::hung;
  };
  EXPECT_EQ(verdictOf("mechanisms/CKM_SHA256/digest/single"), Verdict::ok);
  EXPECT_EQ(verdictOf("mechanisms/CKM_SHA512/digest/single"), Verdict::absent);
  EXPECT_EQ(verdictOf("errors/C_DigestKey/key-0"), Verdict::absent);
  EXPECT_EQ(verdictOf("errors/C_Digest/not-begun"), Verdict::ok);
}

}  // namespace

}  // namespace kestrel::probe
