// What kestrel-run makes of results: the files that it writes, the baseline that it reads, whatever
// a module printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <pugixml.hpp>
#include <regex>
#include <sstream>
#include <system_error>

#include "common/Files.h"
#include "common/FitText.h"
#include "run/results/Baseline.h"
#include "run/results/Difference.h"
#include "run/results/Known.h"
#include "run/write/Html.h"
#include "run/write/Json.h"
#include "run/write/Junit.h"
#include "run/write/Markdown.h"

namespace kestrel::run {
namespace {

namespace fs = std::filesystem;

// A folder that is the current one while the object lives.
class Folder {
 public:
  Folder() {
    fs::create_directory(path_);
    fs::current_path(path_);
  }
  ~Folder() {
    fs::current_path("/");
    fs::remove_all(path_);
  }

 private:
  const fs::path path_ =
      fs::temp_directory_path() / ("kestrel-results." + std::to_string(getpid()));
};

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Every byte, and all that is special to one of the formats.
std::string hostile() {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) text += static_cast<char>(byte);
  return text + "]]>--><script>alert(1)</script>&#0;&amp;\n!!! C_X\n| ``` | [a](b)\n\n    x\r\n" +
         std::string(200, '\0') +
         "\xe2\x80\xae\xf4\x90\x80\x80\xed\xa0\x80\xef\xbf\xbf\xc0\x80\xe2";
}

Run runOf(Outcome outcome, const std::string& report) {
  Run run;
  run.outcome = outcome;
  run.report = report;
  return run;
}

Results resultsOf(const std::vector<Run>& runs, const std::string& module = "module") {
  Results results{"1.0", "2026-11-22T10:00:00+01:00", false, {{module, "/m.so", {}}}, {}};
  for (const Run& run : runs) {
    results.modules[0].tests.push_back(
        {"test" + std::to_string(results.modules[0].tests.size()), {run}});
  }
  return results;
}

// One test of every outcome, with the bytes of hostile() wherever a module has its say.
Results hostileResults() {
  std::vector<Run> runs;
  for (const auto outcome :
       {Outcome::passed, Outcome::notRun, Outcome::nothingTested, Outcome::failed,
        Outcome::couldNotLoad, Outcome::crashed, Outcome::hung}) {
    Run run = runOf(outcome, hostile());
    run.reason = run.call = run.valueName = run.errors = hostile();
    run.value = 0xffffffff;
    run.calls = {{hostile(), false, 0x80000001, hostile()}, {"C_Initialize", true, 0, "CKR_OK"}};
    run.waived[hostile()] = 3;
    run.times = {{hostile(), 2, 3, ~0ull}};
    run.exitStatus = -1;
    run.seconds = 1.25;
    runs.push_back(run);
  }
  Results results = resultsOf(runs, "module" + hostile());
  results.modules[0].path = hostile();
  results.modules[0].tests[0].runs.push_back(runOf(Outcome::passed, ""));
  results.changes = {{Change::broken, results.modules[0].name, "test3", hostile()},
                     {Change::changed, hostile(), hostile(), "only in the earlier run\n"}};
  return results;
}

// Two modules and two tests, with all that can be said of one.
Results fullResults() {
  auto failed = runOf(Outcome::failed, "a\n!!! b\nc" + std::string(200'000, 'd') + "e\n");
  failed.call = "C_SignInit";
  failed.value = 0x70;
  failed.valueName = "CKR_MECHANISM_INVALID";
  failed.calls = {{"C_Login", true, 0, "CKR_OK"}, {"C_SignInit", false, 0x70, ""}};
  failed.verified = 1;
  failed.waived = {{"length-query", 1}, {"salt-length", 2}};
  failed.exitStatus = 1;
  failed.seconds = 9.25;
  failed.cut = true;
  failed.errors = "said\n";
  failed.times = {{"C_Sign", 3, 40, 500}};
  auto passed = runOf(Outcome::passed, "");
  passed.seconds = 12.25;
  Results results = resultsOf({passed, failed});
  results.modules[0].tests[1].runs.push_back(passed);
  results.modules.push_back({"other", "/o.so", {}});
  results.interrupted = true;
  results.modules[0].facts = {"Library", "1.2", "ab12", {{0, "own", "card", "7", "3.4", 5}}};
  results.options = {"--token own"};
  results.against = "monday";
  results.changes = {{Change::same, "module", "test0", ""},
                     {Change::broken, "module", "test1", "--- x\n+++ y\n z\n"},
                     {Change::changed, "module", "gone", ""}};
  return results;
}

TEST(Results, TextIsFitToBeShownAndSaysWhatWasThere) {
  const std::string shown = "\\ gr\xc3\xbc\xe2\x82\xac\xf0\x9f\xa6\x85";
  const std::string wrong = "\xed\xa0\x80\xc0\x80\xf4\x90\x80\x80\xe2\x82";
  const std::string wrongText = "\\xed\\xa0\\x80\\xc0\\x80\\xf4\\x90\\x80\\x80\\xe2\\x82";
  const std::string rows[][3] = {
      {shown, shown, shown},
      {wrong, wrongText, wrongText},
      {"\xc3\xc3\xc3\xc3\xc3\xbc", "\\xc3{4}\xc3\xbc", "\\xc3{4}\xc3\xbc"},
      {std::string(3, '\0') + "\n", "\\x00\\x00\\x00\\x0a", "\\x00\\x00\\x00\n"},
      {std::string(195, '\0') + "0", "\\x00{195}0", "\\x00{195}0"},
      {"\x1b[31m\x7f\xc2\x9b", "\\x1b[31m\\x7f\\u009b", "\\x1b[31m\x7f\xc2\x9b"},
      {"\xe2\x80\xae\xef\xbf\xbe", "\\u202e\\ufffe", "\xe2\x80\xae\\ufffe"},
  };
  for (const auto& [bytes, forPeople, forPrograms] : rows) {
    EXPECT_EQ(visible(bytes), forPeople);
    EXPECT_EQ(validUtf8(bytes), forPrograms);
  }
  EXPECT_EQ(visible("a\n\tb\r", Lines::kept), "a\n\tb\\x0d");
  const std::string text = validUtf8(hostile());
  EXPECT_EQ(validUtf8(text), text);
  EXPECT_EQ(visible(text, Lines::kept), visible(hostile(), Lines::kept));
}

TEST(Results, JsonKeepsEverything) {
  const Results results = hostileResults();
  Results read = fromJson(toJson(results));
  const auto& run = read.modules.at(0).tests.at(3).runs.at(0);
  EXPECT_EQ(run.calls.at(0).value, 0x80000001);
  EXPECT_EQ(run.report, validUtf8(hostile()));
  read.changes = results.changes;
  EXPECT_EQ(toJson(read), toJson(results));
}

TEST(Results, JsonIsWhatTheManualPageSays) {
  Results results = fullResults();
  results.modules[0].tests[1].runs[0].report = "report\n";
  EXPECT_EQ(
      std::regex_replace(toJson(results), std::regex("\\n *"), ""),
      R"({"format": "kestrel-run results","version": 1,"kestrel": "1.0",)"
      R"("started": "2026-11-22T10:00:00+01:00","interrupted": true,"passed": false,"options": ["--token own"],)"
      R"("modules": [{"name": "module","path": "/m.so","facts": {"library": "Library",)"
      R"("version": "1.2","sha256": "ab12","tokens": [{"position": 0,"label": "own",)"
      R"("model": "card","serial": "7","firmware": "3.4","flags": 5}]},"tests": [)"
      R"({"name": "test0","outcome": "passed","detail": "","seconds": 12.25,)"
      R"("passed_runs": 1,"known": "","runs": [)"
      R"({"outcome": "passed","reason": "","call": "","value": null,"value_name": "",)"
      R"("seconds": 12.25,"exit_status": 0,"verified": 0,"unchecked": 0,"waived": {},)"
      R"("times": [],"calls": [],"cut": false,"alike": false,"report": "","errors": ""}]},)"
      R"({"name": "test1","outcome": "failed","detail": "C_SignInit CKR_MECHANISM_INVALID, )"
      R"(waived: length-query (1), salt-length (2), 1 of 2 passed","seconds": 21.5,)"
      R"("passed_runs": 1,"known": "","runs": [)"
      R"({"outcome": "failed","reason": "","call": "C_SignInit","value": 112,)"
      R"("value_name": "CKR_MECHANISM_INVALID","seconds": 9.25,"exit_status": 1,)"
      R"("verified": 1,"unchecked": 0,"waived": {"length-query": 1,"salt-length": 2},)"
      R"("times": [{"function": "C_Sign","count": 3,"median_us": 40,"largest_us": 500}],)"
      R"("calls": [{"name": "C_Login","passed": true,"value": 0,"value_name": "CKR_OK"},)"
      R"({"name": "C_SignInit","passed": false,"value": 112,"value_name": ""}],)"
      R"("cut": true,"alike": false,"report": "report\n","errors": "said\n"},)"
      R"({"outcome": "passed","reason": "","call": "","value": null,"value_name": "",)"
      R"("seconds": 12.25,"exit_status": 0,"verified": 0,"unchecked": 0,"waived": {},)"
      R"("times": [],"calls": [],"cut": false,"alike": false,"report": "","errors": ""}]}]},)"
      R"({"name": "other","path": "/o.so","facts": {"library": "","version": "","sha256": "","tokens": []},"tests": []}],"against": "monday","changes": [)"
      R"({"module": "module","test": "test0","change": "same","difference": ""},)"
      R"({"module": "module","test": "test1","change": "broken",)"
      R"("difference": "--- x\n+++ y\n z\n"},)"
      R"({"module": "module","test": "gone","change": "changed","difference": ""}]})");
}

TEST(Results, DamagedJsonIsRefusedInWords) {
  const std::string json = toJson(resultsOf({runOf(Outcome::failed, "report")}));
  const std::string rows[][3] = {
      {"{", "", "no JSON, or not all of it"},
      {"kestrel-run results", "other", "no results of kestrel-run"},
      {R"("version": 1)", R"("version": 2)", "written by a newer kestrel-run"},
      {R"("version": 1)", R"("version": -1)", R"(damaged: "results.version" is no whole number)"},
      {R"("failed")", R"("gone")",
       R"("results.modules[0].tests[0].runs[0].outcome" is no outcome)"},
      {R"("report": "report")", R"("report": 5)", R"(].report" is no text)"},
      {R"("cut": false)", R"("cut": 0)", R"(].cut" is neither true nor false)"},
      {R"("calls": [])", R"("calls": {})", R"(].calls" is no list)"},
      {R"("calls": [])", R"("calls": [[]])", R"(].calls[0]" has no "name")"},
      {R"("waived": {})", R"("waived": {"a": 1e99})", R"(].waived[]" is no whole number)"},
      {R"("value": null)", R"("value": 4294967296)", R"(].value" is no whole number)"},
      {R"("exit_status": 0)", R"("exit_status": -2147483649)", R"(].exit_status" is no whole)"},
      {R"("seconds": 0.0)", R"("seconds": [])", R"(].seconds" is no number)"},
      {R"("runs": [)", R"("runs": [], "r": [)", R"(modules[0].tests[0]" was not run)"},
  };
  const auto refusal = [](const std::string& text) -> std::string {
    try {
      fromJson(text);
      return "taken";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  };
  for (const auto& [from, to, message] : rows) {
    std::string damaged = json;
    for (std::size_t at = 0; (at = damaged.find(from, at)) != damaged.npos; at += to.size()) {
      damaged.replace(at, from.size(), to);
    }
    EXPECT_NE(refusal(damaged).find(message), std::string::npos) << refusal(damaged);
  }
  for (std::size_t length = 0; length < json.size() - 1; length += 7) {
    EXPECT_EQ(refusal(json.substr(0, length)), "no JSON, or not all of it");
  }
  for (const std::string text : {"[]", "null", "{}"}) {
    EXPECT_EQ(refusal(text), "no results of kestrel-run");
  }
  EXPECT_EQ(refusal(std::string(1'000'000, '[')), "no JSON, or not all of it");
}

TEST(Results, FilesOfHostileTextAreWellFormed) {
  const Folder folder;
  const Results results = hostileResults();
  const std::string junit = toJunit(results), page = toHtml(results), table = toMarkdown(results);
  for (const std::string& text : {junit, page, table}) EXPECT_EQ(text, visible(text, Lines::kept));
  // What an XML reader takes for the body is what a browser takes for it.
  const std::size_t body = page.find("<body>");
  writeFile("body.xml", page.substr(body, page.find("</html>") - body));
  writeFile("junit.xml", junit);
  EXPECT_EQ(std::system("xmllint --noout --schema '" SELFTEST "/junit.xsd' junit.xml 2> errors &&"
                        "xmllint --noout body.xml 2> errors"),
            0)
      << content("errors");
  // And a browser knows its elements.
  const std::string known =
      " a body dd del details div dl dt h1 h2 h3 head header html ins li link main meta p pre "
      "section"
      " small span strong style summary table tbody td th thead title tr ul wbr ";
  for (std::size_t at = 0; (at = page.find('<', at)) != page.npos; ++at) {
    const std::size_t name = at + 1 + (page[at + 1] == '/');
    const std::string element = page.substr(name, page.find_first_of(" />", name) - name);
    EXPECT_TRUE(element == "!DOCTYPE" || known.find(" " + element + " ") != known.npos) << element;
  }
  EXPECT_NE(junit.find(R"(tests="7" failures="2" errors="4" time="8.750" skipped="0")"),
            junit.npos);
  // Two cells in every line of the table, whatever stands in them.
  std::istringstream lines(table.substr(0, table.find("\n\n")));
  for (std::string line; std::getline(lines, line);) {
    std::size_t bars = line[0] == '|';
    for (std::size_t at = 1; at < line.size(); ++at)
      bars += line[at] == '|' && line[at - 1] != '\\';
    EXPECT_EQ(bars, 3u) << line;
  }
}

TEST(Results, PageHoldsAllOfARun) {
  // What stands between the tags, with those in the text of the difference and of the report.
  std::string text = toHtml(fullResults());
  text.erase(0, text.find("<body>"));
  for (std::size_t at = 0; (at = text.find("ddd", at)) != text.npos;) {
    const std::size_t length = text.find_first_not_of('d', at) - at;
    text.replace(at, length, std::to_string(length) + "d");
  }
  text = std::regex_replace(text, std::regex("<(/?(del|ins|strong))>"), "{$1}");
  text = std::regex_replace(text, std::regex("(<[^>]*>)+"), "|");
  EXPECT_EQ(text,
            "|1 of 2 tests passed"
            "|kestrel 1.0 · 2026-11-22 10:00:00 +01:00 · 2 modules · 33.8 s"
            "|--token own|Interrupted: what is missing was not run."
            "|✓ 1 passed|✗ 1 failed|Against monday:|1 same|1 broken|1 changed"
            "|Test|module|other"
            "|test0|✓|{strong}passed{/strong}|–"
            "|test1|✗|{strong}failed{/strong}|C_SignInit CKR_MECHANISM_|INVALID, waived: "
            "length-query (1), salt-length (2), 1 of 2 passed|broken|–"
            "|In the baseline only|module, gone"
            "|module|/m.so|token \"own\" (card, serial 7, firmware 3.4)|Library 1.2|SHA-256 ab12"
            "|test0|✓|{strong}passed{/strong}|0 calls · 12.2 s|Exit status|0"
            "|test1|✗|{strong}failed{/strong}|broken|C_SignInit CKR_MECHANISM_|INVALID, waived: "
            "length-query (1), salt-length (2), 1 of 2 passed|2 calls · 21.5 s"
            "|Ended in|C_SignInit: 0x70 CKR_MECHANISM_INVALID"
            "|Signatures|1 verified, 0 not checked"
            "|Waived|length-query, 1 time|Waived|salt-length, 2 times|Exit status|1"
            "|Run 1|failed, C_SignInit CKR_MECHANISM_INVALID, waived: length-query (1), "
            "salt-length (2)"
            "|broken since the baseline|{del}--- x\n{/del}{ins}+++ y\n{/ins} z\n"
            "|Time in the module|Function|Calls|Median, µs|Largest, µs|C_Sign|3|40|500"
            "|Report, which was cut|a\n{strong}!!! b\n{/strong}c99991d\n[... 11 bytes ...]\n"
            "99998de\n|Standard error|said\n"
            "|other|/o.so|\n|\n");
}

TEST(Results, MarkdownIsTheTableOfTheReadme) {
  auto failed = runOf(Outcome::failed, "");
  failed.call = "C_SignInit";
  failed.valueName = "CKR_MECHANISM_INVALID";
  auto passed = runOf(Outcome::passed, "");
  passed.waived = {{"length-query", 10}, {"salt-length", 5}};
  Results results = resultsOf({passed, failed, runOf(Outcome::crashed, "")}, "a|b");
  results.modules[0].tests[2].runs.push_back(passed);
  results.modules.push_back({"other", "", {{"test1", {runOf(Outcome::notRun, "")}}}});
  EXPECT_EQ(toMarkdown(results),
            "| | a\\|b | other |\n|---|---|---|\n"
            "| `test0` | passed, waived: length-query (10), salt-length (5) |  |\n"
            "| `test1` | `C_SignInit` `CKR_MECHANISM_INVALID` | not run |\n"
            "| `test2` | crashed, 1 of 2 passed |  |\n");
}

TEST(Results, HonestRunsAreTheSame) {
  const Folder folder;
  fs::create_symlink(TOKEN, "libnorvalepk11.so");
  const auto run = [](const std::string& directive) {
    const std::string environment = "KESTREL_TOKEN='" + directive + "' ";
    EXPECT_EQ(std::system((environment + KESTREL " -pw 12345678 signData > report").c_str()), 0);
    return resultsOf({runOf(Outcome::passed, content("report"))});
  };
  const Results first = run("");
  for (int i = 0; i < 9; ++i) {
    const Results next = run("handles=" + std::to_string(7 * i));
    ASSERT_NE(next.modules[0].tests[0].runs[0].report, first.modules[0].tests[0].runs[0].report);
    EXPECT_EQ(compare(fromJson(toJson(first)), next).at(0).difference, "");
  }
  EXPECT_EQ(compare(first, run("key=rsa4096")).at(0).kind, Change::changed);
}

TEST(Results, BaselineTellsWhatChanged) {
  const std::string signature = "Data in buffer after signature operation: \n";
  const auto report = [](const std::string& text) { return runOf(Outcome::passed, text); };
  const auto refused = [](const std::string& reason) {
    auto run = runOf(Outcome::failed, "a\n!!! C_X\n");
    run.reason = reason;
    return run;
  };
  auto waived = report("a\n");
  waived.waived["length-query"] = 1;
  const struct {
    kestrel::run::Run before, now;
    Change::Kind kind;
    std::string difference;
  } rows[] = {
      {report("a\n"), refused("x"), Change::broken,
       "--- passed\n+++ failed, x\n@@ -1 +1,2 @@\n a\n+!!! C_X\n"},
      {refused("x"), report("a\n"), Change::fixed,
       "--- failed, x\n+++ passed\n@@ -1,2 +1 @@\n a\n-!!! C_X\n"},
      {refused("x"), refused("y"), Change::changed, "--- failed, x\n+++ failed, y\n"},
      {waived, report("a\n"), Change::changed,
       "--- passed, waived: length-query (1)\n+++ passed\n"},
      {report(""), runOf(Outcome::nothingTested, ""), Change::broken,
       "--- passed\n+++ nothing tested\n"},
      {report("a\nb"), report("a\nb\n"), Change::changed,
       "--- passed\n+++ passed\n@@ -1,2 +1,2 @@\n a\n-b\n\\ No newline at end of report\n+b\n"},
      {report(hostile()), report(hostile()), Change::same, ""},
      {report("kestrel version: 1 \n" + signature + "00000000: 01 02 03   ...\n\n"),
       report("kestrel version: 2 \n" + signature + "00000000: 09 08 07   ...\n\n"), Change::same,
       ""},
      {report(signature + "00000010: 01 02\nb\n"), report(signature + "00000010: 01\nb\n"),
       Change::changed,
       "--- passed\n+++ passed\n@@ -1,3 +1,3 @@\n " + signature +
           "-(signature of 18 bytes)\n+(signature of 17 bytes)\n b\n"},
      {report("00000000: 01\n"), report(signature + "0\n00000000\n00000000: 01\n"), Change::changed,
       "--- passed\n+++ passed\n@@ -1 +1,4 @@\n+" + signature + "+0\n+00000000\n 00000000: 01\n"},
      {report("Wait : 1\nC_GetSlotInfo : 1\nC_GetSlotInfo : 2\n"), report("C_GetSlotInfo : 1\n"),
       Change::same, ""},
      {report("Library Version: 1\ntoken label: a\nx\n"),
       report("Library Version: 2\ntoken label: b\nx\n"), Change::same,
       "@@ -1,3 +1,3 @@\n-Library Version: 1\n-token label: a\n+Library Version: 2\n"
       "+token label: b\n x\n"},
      {report("a\nb\nc\nd\ne\n"), refused("x"), Change::broken,
       "--- passed\n+++ failed, x\n@@ -1,5 +1,2 @@\n a\n-(4 lines, to the end)\n+!!! C_X\n"},
      {report("C_GetSlotInfo : x\n"), report(""), Change::changed,
       "--- passed\n+++ passed\n@@ -1 +0,0 @@\n-C_GetSlotInfo : x\n"},
  };
  for (const auto& row : rows) {
    const Results before = fromJson(toJson(resultsOf({row.before})));
    const Change change = compare(before, resultsOf({row.now}, "renamed")).at(0);
    EXPECT_EQ(change.kind, row.kind) << row.now.report;
    EXPECT_EQ(change.difference, row.difference);
    EXPECT_EQ(change.module + change.test, "renamedtest0");
  }
}

// What the exit status says, JUnit's numbers say too.
TEST(Results, JunitAndStatusAgree) {
  constexpr std::nullopt_t none = std::nullopt;
  struct Row {
    Outcome outcome;
    std::optional<Change::Kind> change;
    bool known, interrupted, changedFails;
    const char* counts;  // failures, errors, skipped
    bool good;
  };
  const Row rows[] = {
      {Outcome::passed, none, false, false, true, "0 0 0", true},
      {Outcome::failed, none, false, false, true, "1 0 0", false},
      {Outcome::crashed, none, false, false, true, "0 1 0", false},
      {Outcome::nothingTested, none, false, false, true, "1 0 0", false},
      {Outcome::notRun, none, false, false, true, "0 1 0", false},
      {Outcome::passed, none, false, true, true, "0 0 0", false},
      {Outcome::notRun, Change::changed, false, true, false, "0 1 0", false},
      {Outcome::failed, none, true, false, true, "0 0 1", true},
      {Outcome::failed, Change::same, false, false, true, "0 0 1", true},
      {Outcome::failed, Change::broken, false, false, false, "1 0 0", false},
      {Outcome::failed, Change::changed, false, false, true, "1 0 0", false},
      {Outcome::failed, Change::changed, false, false, false, "0 0 1", true},
      {Outcome::passed, Change::changed, false, false, true, "1 0 0", false},
      {Outcome::passed, Change::changed, false, false, false, "0 0 0", true},
      {Outcome::passed, Change::fixed, false, false, true, "0 0 0", true},
      {Outcome::failed, Change::broken, true, false, true, "0 0 1", true},
  };
  for (const Row& row : rows) {
    Results results = resultsOf({runOf(row.outcome, "")});
    if (row.known) results.modules[0].tests[0].known = "since May";
    if (row.change) results.changes = {{*row.change, "module", "test0", ""}};
    results.interrupted = row.interrupted;
    results.changedFails = row.changedFails;
    pugi::xml_document junit;
    ASSERT_TRUE(junit.load_string(toJunit(results).c_str()));
    const auto suite = junit.child("testsuites").child("testsuite");
    const auto number = [&](const char* name) { return suite.attribute(name).as_string(); };
    const auto place = &row - rows;
    EXPECT_EQ(std::string(number("failures")) + " " + number("errors") + " " + number("skipped"),
              row.counts)
        << place;
    EXPECT_EQ(results.acceptable(), row.good) << place;
    // An interrupted run has not failed at what has passed.
    const bool green = std::string_view(row.counts).starts_with("0 0");
    EXPECT_EQ(green && !row.interrupted, row.good) << place;
  }
  // What only the baseline has counts as well, also of a module that is gone.
  Results results = resultsOf({runOf(Outcome::passed, "")});
  results.changes = {{Change::same, "module", "test0", ""},
                     {Change::changed, "module", "test1", "only in the earlier run\n"},
                     {Change::changed, "gone", "test0", "only in the earlier run\n"}};
  EXPECT_FALSE(results.acceptable());
  EXPECT_NE(toJunit(results).find(R"(name="kestrel-run" tests="3" failures="2" errors="0")"),
            std::string::npos);
  results.changedFails = false;
  EXPECT_TRUE(results.acceptable());
  results.against = "monday";
  EXPECT_EQ(comparison(results), "1 same, 2 changed (against monday)");
}

// A module may have written what it likes between the process that looked and us.
TEST(Results, FactsAreWhatTheyAreOrNothing) {
  const ModuleFacts facts{"Library", "1.2", "ab12", {{3, "own", hostile(), "7", "3.4", ~0ull}}};
  const ModuleFacts back = factsFromJson(toJson(facts));
  ASSERT_NE(back.tokenAt(3), nullptr);
  EXPECT_EQ(back.tokenAt(3)->flags, ~0ull);
  EXPECT_EQ(back.tokenAt(3)->model, validUtf8(hostile()));
  EXPECT_EQ(back.tokenAt(0), nullptr);
  EXPECT_EQ(
      describe({"Library", "1.2", "", {{0, "own", "card", "7", "3.4", 0}}}),
      (std::vector<std::string>{R"(token "own" (card, serial 7, firmware 3.4))", "Library 1.2"}));
  for (const char* damaged :
       {"", "no JSON", "[]", "{}", R"({"library":1,"version":"","sha256":"","tokens":[]})",
        R"({"library":"","version":"","sha256":"","tokens":[{}]})",
        R"({"library":"","version":"","sha256":"","tokens":[{"position":-1}]})"}) {
    EXPECT_TRUE(describe(factsFromJson(damaged)).empty()) << damaged;
  }
}

TEST(Results, KnownFailuresAreExcused) {
  const Folder folder;
  auto failed = runOf(Outcome::failed, "");
  failed.call = "C_SignInit";
  failed.valueName = "CKR_MECHANISM_INVALID";
  const Results results =
      resultsOf({runOf(Outcome::passed, ""), failed, runOf(Outcome::nothingTested, "")});
  writeFile("written", knownLines(results));
  EXPECT_EQ(content("written"),
            "# module\ttest\tcall\tvalue\treason\n"
            "module\ttest1\tC_SignInit\tCKR_MECHANISM_INVALID\tfailed on 2026-11-22\n"
            "module\ttest2\t-\t-\tnothing tested on 2026-11-22\n");
  const struct {
    const char* line;
    const char* details[3];
  } rows[] = {
      {"", {"", "C_SignInit CKR_MECHANISM_INVALID", ""}},
      {"module\ttest1\tC_SignInit\tCKR_MECHANISM_INVALID\ta card\nmodule\ttest0\t*\t*\tx\n",
       {"a known failure before", "C_SignInit CKR_MECHANISM_INVALID, known: a card", ""}},
      {"*\t*\t-\t-\tno key\n",
       {"a known failure before", "C_SignInit CKR_MECHANISM_INVALID", "known: no key"}},
      {"other\ttest1\t*\t*\tx\nmodule\ttest1\tC_Sign\t*\tx\nmodule\ttest1\t*\tCKR_OK\tx\n",
       {"", "C_SignInit CKR_MECHANISM_INVALID", ""}},
  };
  for (const auto& row : rows) {
    writeFile("known", std::string("# a comment\n\n") + row.line);
    Results marked = results;
    for (std::size_t i = 0; i < 3; ++i) {
      TestResult& test = marked.modules[0].tests[i];
      markKnown(readKnown("known"), "module", test);
      EXPECT_EQ(outcomeDetail(test), row.details[i]) << row.line;
    }
  }
  for (const char* damaged : {"module\ttest\tcall\tvalue\n", "module test\n", "a\tb\tc\td\t\n"}) {
    writeFile("known", std::string("\n") + damaged);
    try {
      readKnown("known");
      ADD_FAILURE() << damaged;
    } catch (const std::runtime_error& error) {
      EXPECT_TRUE(std::string_view(error.what()).starts_with("known:2: ")) << error.what();
    }
  }
  EXPECT_THROW(readKnown("nothing"), std::system_error);
}

TEST(Results, BaselineMissesNoTest) {
  Results before = resultsOf({runOf(Outcome::passed, ""), runOf(Outcome::passed, "")}, "a");
  Results now = resultsOf({runOf(Outcome::failed, "")}, "b");
  now.modules.push_back(before.modules[0]);
  before.modules.push_back(resultsOf({runOf(Outcome::passed, "")}, "gone").modules[0]);
  now.modules[1].tests.erase(now.modules[1].tests.begin());
  std::string found;
  for (const Change& change : compare(before, now)) {
    found += change.module + " " + change.test + " " + changeName(change.kind) + " " +
             change.difference.substr(0, change.difference.find('\n')) + "\n";
  }
  EXPECT_EQ(
      found,
      "b test0 changed not in the earlier run\na test1 same \n"
      "a test0 changed only in the earlier run\ngone test0 changed only in the earlier run\n");
}

TEST(Results, DifferencesAreBounded) {
  std::string some, many, apart;
  for (int i = 0; i < 30; ++i) some += std::to_string(i) + "\n";
  std::string changed = some;
  changed.replace(changed.find("\n10\n"), 4, "\nten\n").replace(changed.find("\n18\n"), 4, "\n");
  EXPECT_EQ(unifiedDiff(some, changed),
            "@@ -8,7 +8,7 @@\n 7\n 8\n 9\n-10\n+ten\n 11\n 12\n 13\n"
            "@@ -16,7 +16,6 @@\n 15\n 16\n 17\n-18\n 19\n 20\n 21\n");
  for (int i = 0; i < 400'000; ++i) (many += std::to_string(i) + "\n", apart += "x\n");
  std::string wide;
  wide.resize(20'000'000, 'w');
  for (const auto& [before, now] : {std::pair{many, apart}, {wide, many}, {wide, wide + "w"}}) {
    const std::string difference = unifiedDiff(before, now);
    EXPECT_TRUE(!difference.empty() && difference.size() < 20'000) << difference.size();
  }
}

TEST(Results, FilesAreReplacedWholeOrNotAtAll) {
  const Folder folder;
  const auto mode = [](const char* path) {
    struct stat status {};
    return stat(path, &status) == 0 ? status.st_mode & 0777 : 0;
  };
  umask(022);
  writeFile("file", "first");
  EXPECT_EQ(mode("file"), 0644u);
  chmod("file", 0600);
  fs::create_symlink("file", "link");
  writeFile("link", "second");
  EXPECT_TRUE(fs::is_symlink("link"));
  EXPECT_EQ(mode("file"), 0600u);

  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit room{100, old.rlim_max};  // for a part of it
  setrlimit(RLIMIT_FSIZE, &room);
  for (const char* path : {"file", "none", "/dev/full", "no/folder", "."}) {
    try {
      writeFile(path, std::string(5000, 'x'));
      ADD_FAILURE() << path;
    } catch (const std::system_error& error) {
      EXPECT_NE(std::string(error.what()).find(path), std::string::npos) << error.what();
    }
  }
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(content("file"), "second");
  EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), 2);
}

TEST(Results, WhatIsNoPlainFileIsWrittenTo) {
  const Folder folder;
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  const int kept = dup(STDOUT_FILENO), pipe = open("pipe", O_RDWR);
  const int file = open("out", O_WRONLY | O_CREAT, 0600);
  std::cout.flush();
  dup2(file, STDOUT_FILENO);
  for (const char* path : {"-", "/dev/stdout", "out", "pipe"}) writeFile(path, path);
  dup2(kept, STDOUT_FILENO);
  char text[5] = "";
  EXPECT_EQ(read(pipe, text, 4), 4);
  EXPECT_STREQ(text, "pipe");
  EXPECT_EQ(content("out"), "-/dev/stdoutout");
  for (const int each : {kept, file, pipe}) close(each);
}

}  // namespace
}  // namespace kestrel::run
