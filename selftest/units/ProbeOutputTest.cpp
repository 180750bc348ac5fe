// What kestrel-probe shows and writes of its findings, whatever a module put into them; and the
// guarded memory that it finds faults by.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "probe/JsonLines.h"
#include "probe/Memory.h"
#include "probe/ProbeDisplay.h"
#include "probe/Record.h"

namespace kestrel::probe {

namespace {

Check checkOf(const char* path, const Expected& expected = {CKR_OK}) {
  return {path, Stage::user, expected, "C_Sign"};
}

const std::string hostile = std::string("a\0\x1b[31m\n\xff", 9) + "\xe2\x80\xae";

TEST(ProbeDisplay, ShowsByAreaAndTheWorstFirst) {
  // A file is no terminal: nothing moves and nothing has a colour.
  std::FILE* const file = std::tmpfile();
  Display display(file, false, "kestrel-probe m.so");
  display.begin(hostile, 6);
  display.fell(checkOf("errors/one"), {Verdict::ok, "C_Sign", CKR_OK});
  display.fell(checkOf("errors/two", {CKR_KEY_HANDLE_INVALID, CKR_ARGUMENTS_BAD}),
               {Verdict::deviates, "C_Sign", CKR_OK});
  display.fell(checkOf("errors/three"), {Verdict::notApplicable, "", {}, "no key"});
  display.fell(checkOf("errors/four"), {Verdict::notApplicable, "", {}, "no key"});
  display.fell(checkOf("secrets/five"), {Verdict::weak, "C_Sign", 0x80000005, hostile});
  display.fell(checkOf("secrets/six"), {Verdict::crashed, "C_Sign", {}, "SIGSEGV"});
  display.finish(true, 1.26);
  std::rewind(file);
  std::string shown(4096, '\0');
  shown.resize(std::fread(shown.data(), 1, shown.size(), file));
  std::fclose(file);
  EXPECT_EQ(shown, R"(token "a\x00\x1b[31m\x0a\xff\u202e", 6 checks
              ok  not applicable  weak  deviates  crashed
errors         1               2     -         1        -
secrets        -               -     1         -        1
not applicable: 2 x no key

crashed  secrets/six
    C_Sign: SIGSEGV
    expected CKR_OK (PKCS #11, C_Sign)
    kestrel-probe m.so secrets/six

deviates  errors/two
    C_Sign CKR_OK
    expected CKR_KEY_HANDLE_INVALID or CKR_ARGUMENTS_BAD (PKCS #11, C_Sign)
    kestrel-probe m.so errors/two

weak  secrets/five
    C_Sign 0x80000005: a\x00\x1b[31m\x0a\xff\u202e
    expected CKR_OK (PKCS #11, C_Sign)
    kestrel-probe m.so secrets/five

interrupted: 6 checks, 1.3 s
)");
}

TEST(ProbeDisplay, JsonLinesAreJsonWhateverIsInThem) {
  char path[] = "/tmp/kestrel-lines-XXXXXX";
  close(mkstemp(path));
  {
    JsonLines json(path);
    json.begin(hostile, hostile, "2026-11-23T00:00:00Z");
    json.add(checkOf("a/b", {CKR_ARGUMENTS_BAD, 0x80000007}),
             {Verdict::wrong, "C_Sign", CK_RV{1} << 40, hostile, 0.5});
    json.add(checkOf("a/c"), {Verdict::notApplicable, "", {}, ""});
    Totals totals{};
    totals[static_cast<std::size_t>(Verdict::wrong)] = 1;
    json.end(totals, true);
    json.finish();
  }
  std::FILE* const file = std::fopen(path, "r");
  std::string text(65536, '\0');
  text.resize(std::fread(text.data(), 1, text.size(), file));
  std::fclose(file);
  unlink(path);
  std::istringstream lines(text);
  std::vector<nlohmann::json> found;
  for (std::string line; std::getline(lines, line);) found.push_back(nlohmann::json::parse(line));
  ASSERT_EQ(found.size(), 4u);
  EXPECT_EQ(found[0]["version"], 1);
  EXPECT_EQ(found[1]["verdict"], "wrong");
  EXPECT_EQ(found[1]["value"], std::uint64_t{1} << 40);
  EXPECT_EQ(found[1]["name"], "0x10000000000");
  EXPECT_EQ(found[1]["expected"], nlohmann::json({"CKR_ARGUMENTS_BAD", "0x80000007"}));
  EXPECT_EQ(found[1]["clause"], "PKCS #11, C_Sign");
  EXPECT_TRUE(found[2]["value"].is_null());
  EXPECT_EQ(found[3]["totals"]["wrong"], 1);
  EXPECT_EQ(found[3]["interrupted"], true);
}

// A module shares the process that writes a record, and may have written into it.
TEST(ProbeDisplay, ARecordIsBoundedWhateverItHolds) {
  Record record;
  std::memset(static_cast<void*>(&record), 0xff, sizeof record);
  const Finding finding = record.finding();
  EXPECT_LT(static_cast<std::size_t>(finding.verdict), verdictCount);
  EXPECT_EQ(finding.call.size(), sizeof record.call);
  EXPECT_EQ(finding.detail.size(), sizeof record.detail);
  Finding longer{Verdict::wrong, std::string(100, 'c'), 5, std::string(5000, 'd')};
  const Finding back = Record::of(7, longer).finding();
  EXPECT_EQ(back.verdict, Verdict::wrong);
  EXPECT_EQ(back.call, std::string(sizeof record.call - 1, 'c'));
  EXPECT_EQ(back.detail, std::string(sizeof record.detail - 1, 'd'));
  EXPECT_EQ(back.value, CK_RV{5});
}

TEST(ProbeMemory, KnowsWhatEachAddressIs) {
  Memory memory;
  for (const std::size_t size : {1u, 15u, 4096u, 5000u}) {
    CK_BYTE* const room = memory.bytes(size);
    CK_BYTE* const given = memory.in(std::string_view(std::string(size, 'g')));
    EXPECT_TRUE(Memory::isUntouched(room, size)) << size;
    EXPECT_TRUE(memory.owns(room) && memory.owns(room + size) && memory.owns(given)) << size;
    EXPECT_EQ(memory.placeOf(room + size), Memory::Place::behind) << size;
    EXPECT_EQ(memory.placeOf(given + size), Memory::Place::behind) << size;
    EXPECT_EQ(memory.placeOf(given), Memory::Place::readOnly) << size;
    const std::size_t inPage = reinterpret_cast<std::uintptr_t>(room) % 4096;
    EXPECT_EQ(memory.placeOf(room - inPage - 1), Memory::Place::before) << size;
    room[size - 1] = static_cast<CK_BYTE>(room[size - 1] + 1);
    EXPECT_FALSE(Memory::isUntouched(room, size)) << size;
    EXPECT_TRUE(memory.isWhole()) << size;
    if (size == 4096) continue;  // a whole page has nothing before it that may be touched
    room[-1] = static_cast<CK_BYTE>(room[-1] + 1);
    EXPECT_FALSE(memory.isWhole()) << size;
    room[-1] = static_cast<CK_BYTE>(room[-1] - 1);
  }
}

TEST(ProbeMemory, IsGoneWhenItIsReleased) {
  Memory memory;
  CK_BYTE* const kept = memory.bytes(10);
  const std::size_t mark = memory.mark();
  CK_BYTE* const gone = memory.bytes(10);
  memory.release(mark);
  EXPECT_TRUE(memory.owns(kept));
  EXPECT_FALSE(memory.owns(gone));
  EXPECT_FALSE(memory.owns(&mark));
  EXPECT_EQ(memory.placeOf(&mark), Memory::Place::elsewhere);
  const CK_ULONG numbers[] = {1, 2, 3};
  const auto* const copy = memory.in(std::span<const CK_ULONG>(numbers));
  EXPECT_EQ(copy[2], 3u);
}

}  // namespace

}  // namespace kestrel::probe
