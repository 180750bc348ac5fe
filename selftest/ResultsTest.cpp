// What kestrel-run makes of results: the files that it writes, the baseline that it reads, whatever
// a module printed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "run/Baseline.h"
#include "run/Files.h"
#include "run/Html.h"
#include "run/Json.h"
#include "run/Junit.h"
#include "run/Markdown.h"
#include "run/Text.h"

namespace {

namespace fs = std::filesystem;

// Is the current folder of a test, and gone after it.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/kestrel-results.XXXXXX";
    if (mkdtemp(name) != nullptr) path_ = name;
    fs::current_path(path_);
  }
  ~Folder() {
    fs::current_path("/");
    fs::remove_all(path_);
  }

  static std::size_t files() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("."), {}));
  }

 private:
  fs::path path_;
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

TEST(Results, TextIsFitToBeShownAndSaysWhatWasThere) {
  const struct {
    std::string bytes, forPeople, forPrograms;
  } rows[] = {
      {"plain \\ text\n", "plain \\ text\\x0a", "plain \\ text\n"},
      {std::string(3, '\0') + "a", "\\x00\\x00\\x00a", "\\x00\\x00\\x00a"},
      {"a" + std::string(195, '\0'), "a\\x00{195}", "a\\x00{195}"},
      {"\x1b[31m\x7f\xc2\x9b", "\\x1b[31m\\x7f\\u009b", "\\x1b[31m\x7f\xc2\x9b"},
      {"gr\xc3\xbc\xe2\x82\xac\xf0\x9f\xa6\x85", "gr\xc3\xbc\xe2\x82\xac\xf0\x9f\xa6\x85",
       "gr\xc3\xbc\xe2\x82\xac\xf0\x9f\xa6\x85"},
      {"\xe2\x80\xae\xef\xbf\xbe", "\\u202e\\ufffe", "\xe2\x80\xae\\ufffe"},
      {"\xc3\xc3\xc3\xc3\xc3\xbc", "\\xc3{4}\xc3\xbc", "\\xc3{4}\xc3\xbc"},
      {"\xed\xa0\x80\xc0\x80\xe2\x82", "\\xed\\xa0\\x80\\xc0\\x80\\xe2\\x82",
       "\\xed\\xa0\\x80\\xc0\\x80\\xe2\\x82"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "\\xf4\\x90\\x80\\x80"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(visible(row.bytes), row.forPeople);
    EXPECT_EQ(validUtf8(row.bytes), row.forPrograms);
  }
  EXPECT_EQ(visible("a\n\tb\r", Lines::kept), "a\n\tb\\x0d");
  const std::string text = validUtf8(hostile());
  EXPECT_EQ(validUtf8(text), text);
  EXPECT_EQ(visible(text, Lines::kept), visible(hostile(), Lines::kept));
}

TEST(Results, JsonKeepsEverything) {
  const Results results = hostileResults();
  const std::string json = toJson(results);
  Results read = fromJson(json);
  EXPECT_EQ(read.modules.at(0).tests.at(3).runs.at(0).calls.at(0).value, 0x80000001);
  EXPECT_EQ(read.modules.at(0).tests.at(3).runs.at(0).report, validUtf8(hostile()));
  read.changes = results.changes;
  EXPECT_EQ(toJson(read), json);
}

TEST(Results, DamagedJsonIsRefusedInWords) {
  const std::string json = toJson(resultsOf({runOf(Outcome::failed, "report")}));
  const struct {
    const char *from, *to, *message;
  } rows[] = {
      {"{", "", "no JSON, or not all of it"},
      {"\"kestrel-run results\"", "\"other\"", "no results of kestrel-run"},
      {"\"version\": 1", "\"version\": 2", "written by a newer kestrel-run"},
      {"\"version\": 1", "\"version\": -1", "damaged: \"results.version\" is no whole number"},
      {"\"failed\"", "\"gone\"", "damaged: \"results.modules[0].tests[0].runs[0].outcome\""},
      {"\"report\": \"report\"", "\"report\": 5", "].report\" is no text"},
      {"\"cut\": false", "\"cut\": 0", "].cut\" is neither true nor false"},
      {"\"calls\": []", "\"calls\": {}", "].calls\" is no list"},
      {"\"calls\": []", "\"calls\": [[]]", "].calls[0]\" has no \"name\""},
      {"\"waived\": {}", "\"waived\": {\"a\": 1e99}", "].waived[]\" is no whole number"},
      {"\"value\": null", "\"value\": 4294967296", "].value\" is no whole number"},
      {"\"exit_status\": 0", "\"exit_status\": -2147483649", "].exit_status\" is no whole"},
      {"\"seconds\": 0.0", "\"seconds\": []", "].seconds\" is no number"},
      {"\"runs\"", "\"runs\": [], \"r\"", "damaged: \"results.modules[0].tests[0]\" was not run"},
  };
  for (const auto& row : rows) {
    std::string damaged = json;
    for (std::size_t at = 0; (at = damaged.find(row.from, at)) != damaged.npos;) {
      damaged.replace(at, std::string(row.from).size(), row.to);
      at += std::string(row.to).size();
    }
    try {
      fromJson(damaged);
      ADD_FAILURE() << row.to << " taken";
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(row.message), std::string::npos) << error.what();
    }
  }
  for (std::size_t length = 0; length < json.size() - 1; length += 7) {
    EXPECT_THROW(fromJson(json.substr(0, length)), std::runtime_error);
  }
  for (const std::string text : {"[]", "null", "\"\xff\"", "{}"}) {
    EXPECT_THROW(fromJson(text), std::runtime_error);
  }
  EXPECT_THROW(fromJson(std::string(1'000'000, '[')), std::runtime_error);
}

TEST(Results, FilesOfHostileTextAreWellFormed) {
  const Folder folder;
  Results results = hostileResults();
  writeFile("junit.xml", toJunit(results));
  writeFile("page.html", toHtml(results));
  // What an XML reader takes for the body is what a browser takes for it.
  const std::string page = content("page.html"), table = toMarkdown(results);
  writeFile("body.xml",
            page.substr(page.find("<body>"), page.find("</html>") - page.find("<body>")));
  EXPECT_EQ(std::system("xmllint --noout --schema '" SELFTEST "/junit.xsd' junit.xml 2> errors &&"
                        "xmllint --noout body.xml 2> errors"),
            0)
      << content("errors");
  EXPECT_EQ(page.find("<script"), std::string::npos);
  const std::string junit = content("junit.xml");
  EXPECT_NE(junit.find("tests=\"7\" failures=\"2\" errors=\"3\" time=\"8.750\" skipped=\"1\""),
            std::string::npos);
  for (const std::string& text : {junit, page, table}) EXPECT_EQ(text, visible(text, Lines::kept));
  // Nine lines of a table with two cells each, whatever stands in them.
  std::istringstream lines(table);
  std::string line;
  for (int i = 0; i < 9 && std::getline(lines, line); ++i) {
    std::size_t bars = 0;
    for (std::size_t at = 0; at < line.size(); ++at) {
      bars += line[at] == '|' && (at == 0 || line[at - 1] != '\\');
    }
    EXPECT_EQ(bars, 3u) << line;
  }
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

// What kestrel reports of a test on the software token.
std::string kestrelReport(const std::string& directives, const std::string& test) {
  const std::string command = "KESTREL_TOKEN='" + directives + "' '" KESTREL "' -pw 12345678 ";
  EXPECT_NE(std::system((command + test + " > report").c_str()), -1);
  return content("report");
}

TEST(Results, HonestRunsAreTheSame) {
  const Folder folder;
  fs::create_symlink(TOKEN, "libnorvalepk11.so");
  const std::string test = "signData";
  const auto run = [&](const std::string& directives) {
    return resultsOf({runOf(Outcome::passed, kestrelReport(directives, test))});
  };
  const Results first = run("");
  ASSERT_NE(first.modules[0].tests[0].runs[0].report.find("C_Finalize() passed"),
            std::string::npos);
  for (int i = 0; i < 9; ++i) {
    const Results next = run("handles=" + std::to_string(7 * i));
    ASSERT_NE(next.modules[0].tests[0].runs[0].report, first.modules[0].tests[0].runs[0].report);
    EXPECT_EQ(compare(fromJson(toJson(first)), next).at(0).difference, "");
  }
  // A signature of another length is none of what differs between honest runs.
  EXPECT_EQ(compare(first, run("key=rsa4096")).at(0).kind, Change::changed);
}

TEST(Results, BaselineTellsWhatChanged) {
  const std::string signature = "Data in buffer after signature operation: \n";
  const auto report = [](const std::string& text) { return runOf(Outcome::passed, text); };
  auto refused = runOf(Outcome::failed, "a\n!!! C_X\n"), other = refused;
  auto waived = report("a\n");
  refused.reason = "C_X CKR_DEVICE_ERROR";
  other.reason = "C_X CKR_HOST_MEMORY";
  waived.waived["length-query"] = 1;
  const struct {
    ::Run before, now;
    Change::Kind kind;
    std::string difference;
  } rows[] = {
      {report("a\n"), refused, Change::broken,
       "--- passed\n+++ failed, C_X CKR_DEVICE_ERROR\n@@ -1 +1,2 @@\n a\n+!!! C_X\n"},
      {refused, report("a\n"), Change::fixed,
       "--- failed, C_X CKR_DEVICE_ERROR\n+++ passed\n@@ -1,2 +1 @@\n a\n-!!! C_X\n"},
      {refused, other, Change::changed,
       "--- failed, C_X CKR_DEVICE_ERROR\n+++ failed, C_X CKR_HOST_MEMORY\n"},
      {report("a\n"), waived, Change::changed,
       "--- passed\n+++ passed, waived: length-query (1)\n"},
      {report("a\n"), runOf(Outcome::nothingTested, "a\n"), Change::broken,
       "--- passed\n+++ nothing tested\n"},
      {report("a\nb"), report("a\nb\n"), Change::changed,
       "--- passed\n+++ passed\n@@ -1,2 +1,2 @@\n a\n-b\n\\ No newline at end of report\n+b\n"},
      {report(hostile()), report(hostile()), Change::same, ""},
      {report("kestrel version: 1 \n" + signature + "00000000: 01 02 03   ...\n\n"),
       report("kestrel version: 2 \n" + signature + "00000000: 09 08 07   ...\n\n"), Change::same,
       ""},
      {report(signature + "00000000: 01 02\nb\n"), report(signature + "00000000: 01\nb\n"),
       Change::changed,
       "--- passed\n+++ passed\n@@ -1,3 +1,3 @@\n " + signature +
           "-(signature of 2 bytes)\n+(signature of 1 bytes)\n b\n"},
      {report(signature + "0\n00000000\n00000000: \n"), report(signature + "0\n00000000\n1\n"),
       Change::changed,
       "--- passed\n+++ passed\n@@ -1,4 +1,4 @@\n " + signature +
           " 0\n 00000000\n-00000000: \n+1\n"},
      {report("Wait : 1\nC_GetSlotInfo : 1\nC_GetSlotInfo : 2\n"), report("C_GetSlotInfo : 1\n"),
       Change::same, ""},
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
  umask(022);
  writeFile("file", "first");
  chmod("file", 0640);
  fs::create_symlink("file", "link");
  writeFile("link", "second");
  EXPECT_TRUE(fs::is_symlink("link"));
  EXPECT_EQ(content("file"), "second");
  struct stat status {};
  EXPECT_TRUE(stat("file", &status) == 0 && (status.st_mode & 0777) == 0640);
  writeFile("new", "");
  EXPECT_TRUE(stat("new", &status) == 0 && (status.st_mode & 0777) == 0644);

  // Room for a part of it.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{}, small{};
  getrlimit(RLIMIT_FSIZE, &old);
  small = {100, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(writeFile("file", std::string(5000, 'x')), std::system_error);
  EXPECT_THROW(writeFile("none", std::string(5000, 'x')), std::system_error);
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(content("file"), "second");
  EXPECT_EQ(folder.files(), 3u);

  for (const char* path : {"/dev/full", "no/folder", ".", ""}) {
    try {
      writeFile(path, "text");
      ADD_FAILURE() << path;
    } catch (const std::system_error& error) {
      EXPECT_NE(std::string(error.what()).find(path), std::string::npos) << error.what();
    }
  }
  EXPECT_EQ(folder.files(), 3u);
}

TEST(Results, StandardOutputIsWrittenTo) {
  const Folder folder;
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  std::cout.flush();
  const int kept = dup(STDOUT_FILENO);
  const int file = open("out", O_WRONLY | O_CREAT, 0600), pipe = open("pipe", O_RDWR);
  dup2(file, STDOUT_FILENO);
  for (const char* path : {"-", "/dev/stdout", "out", "pipe"}) writeFile(path, path);
  dup2(kept, STDOUT_FILENO);
  char read[5] = "";
  EXPECT_EQ(::read(pipe, read, 4), 4);
  EXPECT_STREQ(read, "pipe");
  EXPECT_EQ(content("out"), "-/dev/stdoutout");
  for (const int each : {kept, file, pipe}) close(each);
}

}  // namespace
