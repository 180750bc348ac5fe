// Asks the PC/SC service for the card that a slot position stands for, as printInfo does, but looks
// it up among the known cards:   query_reader POSITION
#include <cstdio>
#include <cstdlib>

#include "cards/KnownCards.h"
#include "cards/ReaderQuery.h"
#include "harness/Output.h"

using namespace kestrel;

int main(int, char** argv) {
  std::int32_t match = -1;
  const auto position = static_cast<std::uint32_t>(std::atoi(argv[1]));
  const std::uint32_t status = queryReaderAtr(match, position, KnownCardTable);
  report.flush();
  std::printf("row %d, status %#x\n", match, status);
}
