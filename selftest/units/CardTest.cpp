// The known cards, the texts around them, and what a reader query makes of a PC/SC service that
// fails or lies: the six functions below stand in for libpcsclite in this program.
#include <gtest/gtest.h>
#include <reader.h>
#include <winscard.h>

#include <algorithm>

#include "cards/Atr.h"
#include "cards/KnownCards.h"
#include "cards/ReaderQuery.h"
#include "harness/Bytes.h"
#include "harness/Output.h"

namespace {

using namespace kestrel;
using namespace std::literals;
using Bytes = std::vector<std::uint8_t>;

// What the service answers.
struct Pcsc {
  LONG establish = SCARD_S_SUCCESS;
  std::string_view readers = "One\0Two\0\0"sv;
  DWORD readersLength = 9;
  LONG attribute = SCARD_S_SUCCESS;
  DWORD atrLength = 9;
  LONG disconnect = SCARD_S_SUCCESS;
  LONG release = SCARD_S_SUCCESS;
};

Pcsc pcsc;
std::string calls;
const Bytes row2 = {0x3b, 0x65, 0x00, 0x00, 0x9c, 0x02, 0x02, 0x07, 0x02};

}  // namespace

LONG SCardEstablishContext(DWORD scope, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
  calls += "establish " + std::to_string(scope);
  *context = 7;
  return pcsc.establish;
}

LONG SCardListReaders(SCARDCONTEXT, LPCSTR groups, LPSTR readers, LPDWORD length) {
  calls += (groups == nullptr ? " list " : " list of groups ") + std::to_string(*length);
  std::copy_n(pcsc.readers.begin(), std::min(pcsc.readers.size(), *length), readers);
  *length = pcsc.readersLength;
  return SCARD_S_SUCCESS;
}

LONG SCardConnect(SCARDCONTEXT, LPCSTR reader, DWORD mode, DWORD protocols, LPSCARDHANDLE card,
                  LPDWORD) {
  calls += " connect "s + reader + " " + std::to_string(mode) + std::to_string(protocols);
  *card = 8;
  return *reader == '\0' ? SCARD_E_UNKNOWN_READER : SCARD_S_SUCCESS;
}

LONG SCardGetAttrib(SCARDHANDLE, DWORD id, LPBYTE attribute, LPDWORD length) {
  calls += id == SCARD_ATTR_ATR_STRING ? " atr" : " other attribute";
  std::copy_n(row2.begin(), std::min(row2.size(), *length), attribute);
  *length = pcsc.atrLength;
  return pcsc.attribute;
}

LONG SCardDisconnect(SCARDHANDLE card, DWORD disposition) {
  calls += " disconnect " + std::to_string(card) + std::to_string(disposition);
  return pcsc.disconnect;
}

LONG SCardReleaseContext(SCARDCONTEXT context) {
  calls += " release " + std::to_string(context);
  return pcsc.release;
}

namespace {

TEST(ReaderQuery, MeetsEveryFaultOfTheService) {
  const std::string connected = "establish 0 list 512 connect One 23 atr disconnect 80 release 7";
  const std::string listed = "establish 0 list 512 release 7";
  const std::string longList(600, 'x');
  const DWORD allOnes = ~DWORD{0};
  const struct {
    Pcsc service;
    std::uint32_t readerIndex;
    std::int32_t match;
    std::string calls;
  } cases[] = {
      {{}, 0, 2, connected},
      {{}, 3, 2, "establish 0 list 512 connect Two 23 atr disconnect 80 release 7"},
      {{.readers = "One\0\0"sv, .readersLength = 5},
       1,
       -1,
       "establish 0 list 512 connect  23 release 7"},
      {{.establish = SCARD_E_NO_SERVICE}, 0, -1, "establish 0 release 7"},
      {{.readers = longList, .readersLength = 600}, 0, -1, listed},
      {{.readers = longList, .readersLength = 512}, 0, -1, listed},
      {{.readers = longList, .readersLength = allOnes}, 0, -1, listed},
      {{.readersLength = 0}, 0, -1, listed},
      {{.readers = "One\0Two\0x"sv}, 0, -1, listed},
      {{.attribute = SCARD_E_NOT_TRANSACTED}, 0, -1, connected},
      {{.atrLength = 34}, 0, -1, connected},
      {{.atrLength = allOnes}, 0, -1, connected},
      {{.disconnect = SCARD_W_REMOVED_CARD}, 0, -1, connected},
      {{.release = SCARD_E_INVALID_HANDLE}, 0, 2, connected},
  };
  for (const auto& test : cases) {
    pcsc = test.service;
    calls.clear();
    SCOPED_TRACE(&test - cases);
    const bool found = test.match == 2 && pcsc.release == SCARD_S_SUCCESS;
    std::int32_t match = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(queryReaderAtr(match, test.readerIndex, KnownCardTable), found ? 0 : 0x80100001);
    report.flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout().empty(), test.match == -1);
    EXPECT_EQ(match, test.match);
    EXPECT_EQ(calls, test.calls);
  }
}

void expectRow(std::int32_t row, std::span<const KnownCard> table, const Bytes& atr,
               const std::string& printed) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(matchAtr(table, atr.data(), atr.size()), row);
  report.flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "-> ORIGINAL ATR: " + printed + "\n");
}

TEST(KnownCards, TheFirstRowThatFitsUnderItsMaskMatches) {
  const KnownCard table[] = {{"3b,65", "", "no mask"},
                             {"3b,65", nullptr, "compared as text"},
                             {"3b,00,02", "ff,00,0f", "masked"},
                             {"3b,77,f2", "ff,ff,ff", "behind one that fits, too"}};
  expectRow(1, table, {0x3b, 0x65}, "3b,65");
  expectRow(2, table, {0x3b, 0x77, 0xf2}, "3b,77,f2");
  expectRow(-1, table, {0x3b, 0x77, 0xf3}, "3b,77,f3");
  expectRow(-1, table, {0x3b, 0x65, 0x02, 0x02}, "3b,65,02,02");
  expectRow(-1, table, Bytes(34, 0x3b), "");
}

TEST(ParseHexText, StopsWhereTheTextGoesWrong) {
  const struct {
    const char* text;
    std::size_t capacity;
    std::uint32_t status;
    Bytes bytes;
  } cases[] = {
      {"0", 4, hexTextOk, {0x00}},
      {"3b6b", 4, hexTextOk, {0x3b, 0x6b}},
      {"AF:9f 00", 4, hexTextOk, {0xaf, 0x9f, 0x00}},
      {"3b, :", 1, hexTextOk, {0x3b}},
      {"", 4, hexTextOk, {}},
      {"3b,0", 4, hexTextInvalid, {0x3b}},
      {"3b;6b", 4, hexTextInvalid, {0x3b}},
      {"5,", 4, hexTextInvalid, {}},
      {"3b,0,6", 4, hexTextInvalid, {0x3b}},
      {"3b,g", 4, hexTextInvalid, {0x3b}},
      {"3b,6b", 1, hexTextTooLong, {0x3b}},
      {"5", 0, hexTextTooLong, {}},
  };
  for (const auto& test : cases) {
    Bytes out(4);
    std::size_t count = test.capacity;
    EXPECT_EQ(parseHexText(test.text, out.data(), &count), test.status) << test.text;
    out.resize(count);
    EXPECT_EQ(out, test.bytes) << test.text;
  }
  std::size_t count = 1;
  EXPECT_EQ(parseHexText("3b", nullptr, &count), hexTextInvalid);
}

}  // namespace
