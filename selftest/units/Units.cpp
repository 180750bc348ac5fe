// What is quicker to try function by function than through a whole run.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <vector>

#include "harness/Bytes.h"
#include "harness/Output.h"
#include "harness/Pin.h"
#include "harness/Signals.h"

namespace {

using namespace kestrel;

std::string dump(const void* bytes, std::uint32_t length) {
  testing::internal::CaptureStdout();
  hexDump(bytes, length);
  report.flush();
  return testing::internal::GetCapturedStdout();
}

TEST(Units, HexDumpAlignsTheTextColumn) {
  const char text[] = "This is a test string to sign";
  EXPECT_EQ(dump(text, 16),
            "00000000: 54 68 69 73 20 69 73 20 61 20 74 65 73 74 20 73   This is a test s\n\n");
  EXPECT_EQ(dump(text, 17),
            "00000000: 54 68 69 73 20 69 73 20 61 20 74 65 73 74 20 73   This is a test s\n"
            "00000010: 74 " +
                std::string(45, ' ') + "  t\n\n");
  EXPECT_EQ(dump(" ~\x1f\x7f", 4), "00000000: 20 7e 1f 7f " + std::string(36, ' ') + "   ~..\n\n");
  EXPECT_EQ(dump(text, 0), "HexDump ? bufferLen = 0 or NULL buffer passed\n");
  EXPECT_EQ(dump(nullptr, 18), "HexDump ? bufferLen = 18 or NULL buffer passed\n");
}

TEST(Units, BytesToHexNeverPassesItsOutput) {
  const std::uint8_t bytes[] = {0x3b, 0x9f, 0x95};
  const struct {
    std::uint64_t count, size;
    std::uint32_t separator, status;
    const char* text;
  } rows[] = {
      {3, 9, ',', hexTextOk, "3b,9f,95"}, {3, 8, ',', hexTextTooLong, ""},
      {3, 7, 0, hexTextOk, "3b9f95"},     {3, 6, 0, hexTextTooLong, ""},
      {0, 0, ',', hexTextTooLong, ""},    {0, 1, 0, hexTextOk, ""},
      {~0ull, 9, 0, hexTextTooLong, ""},  {~0ull / 3, 9, ',', hexTextTooLong, ""},
  };
  for (const auto& row : rows) {
    std::string out(10, '?'), expected(10, '?');
    if (row.status == hexTextOk) expected.replace(0, row.size, row.text, row.size);
    EXPECT_EQ(bytesToHex(bytes, row.count, out.data(), row.size, row.separator), row.status);
    EXPECT_EQ(out, expected);
  }
  char out[9];
  EXPECT_EQ(bytesToHex(nullptr, 0, out, sizeof out, 0), hexTextInvalid);
  EXPECT_EQ(bytesToHex(bytes, 3, nullptr, 9, 0), hexTextInvalid);
}

TEST(Units, EveryPinIsWipedAtTheEnd) {
  std::vector<Pin> store{Pin("12345678"), Pin("1234567890123456789012345678901")};
  store.resize(20);
  Pin copy = store[1];
  EXPECT_EQ(copy.length(), Pin::maxLength);
  EXPECT_EQ(std::memcmp(store[0].data(), "12345678\0\0\0", 11), 0);
  store.erase(store.begin() + 5, store.begin() + 9);
  Pin::wipeAll();
  for (Pin* pin : {&store[0], &store[1], &store.back(), &copy}) {
    EXPECT_EQ(std::count(pin->data(), pin->data() + Pin::maxLength + 1, 0), 32);
  }
}

// The PIN lies where the parent sees what the child left of it.
TEST(Units, NoCoreFileHoldsAPin) {
  void* const shared =
      mmap(nullptr, sizeof(Pin), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Pin* const pin = new (shared) Pin("12345678");
  const pid_t child = fork();
  if (child == 0) {
    installSignalHandlers();
    setrlimit(RLIMIT_CORE, std::array<rlimit, 1>{}.data());
    raise(SIGQUIT);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WTERMSIG(status), SIGQUIT);
  EXPECT_EQ(std::count(pin->data(), pin->data() + Pin::maxLength + 1, 0), 32);
  pin->~Pin();
}

}  // namespace
