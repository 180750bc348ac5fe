#include "cards/Atr.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "harness/Bytes.h"
#include "harness/Output.h"

namespace kestrel {

namespace {

using AtrBytes = std::array<std::uint8_t, maxAtrLength>;

// The value of a hexadecimal digit, -1 for any other character.
int digitValue(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

bool isSeparator(char character) {
  return character == ' ' || character == ':' || character == ',';
}

// Text on its way to bytes.
struct HexWalk {
  const char* text;
  std::uint8_t* out;
  std::size_t capacity;
  std::size_t stored = 0;
  int half = -1;  // a high nibble that waits for its low one; -1 for none

  bool full() const { return stored == capacity; }
  void store(int value) { out[stored++] = static_cast<std::uint8_t>(value); }

  // Takes the next character; false for one that may not stand there.
  bool take() {
    const int digit = digitValue(*text);
    if (digit < 0) {
      if (!isSeparator(*text) || half >= 0) return false;
    } else if (half < 0) {
      half = digit;
    } else {
      store(half << 4 | digit);
      half = -1;
    }
    ++text;
    return true;
  }

  std::uint32_t finish() {
    if (half >= 0 && stored != 0) return hexTextInvalid;
    if (half >= 0) store(half);  // the whole text was one digit
    while (isSeparator(*text)) ++text;
    return *text == '\0' ? hexTextOk : hexTextTooLong;
  }
};

std::size_t parseAtrText(const char* text, AtrBytes& bytes) {
  std::size_t count = bytes.size();
  parseHexText(text, bytes.data(), &count);
  return count;
}

// Whether the row's ATR and `atr`, of `atrLength` bytes, agree in the bits that the mask counts.
bool fitsUnderMask(const KnownCard& row, const AtrBytes& atr, std::size_t atrLength) {
  AtrBytes rowAtr{};
  AtrBytes mask{};
  const std::size_t rowCount = parseAtrText(row.atr, rowAtr);
  if (parseAtrText(row.atrMask, mask) != atrLength) return false;
  for (std::size_t k = 0; k < rowCount; ++k) {
    if ((rowAtr[k] & mask[k]) != (mask[k] & atr[k])) return false;
  }
  return true;
}

}  // namespace

std::uint32_t parseHexText(const char* text, std::uint8_t* out, std::size_t* inOutCount) {
  if (text == nullptr || out == nullptr || inOutCount == nullptr) return hexTextInvalid;
  HexWalk walk{text, out, *inOutCount};
  bool valid = true;
  while (valid && *walk.text != '\0' && !walk.full()) valid = walk.take();
  const std::uint32_t status = valid ? walk.finish() : hexTextInvalid;
  *inOutCount = walk.stored;
  return status;
}

std::int32_t matchAtr(std::span<const KnownCard> table, const std::uint8_t* atrBytes,
                      std::size_t atrLength) {
  std::array<char, 3 * maxAtrLength> text{};
  const std::uint32_t status = bytesToHex(atrBytes, atrLength, text.data(), text.size(), ',');
  report << "-> ORIGINAL ATR: " << text.data() << "\n";
  if (status != hexTextOk) return -1;

  AtrBytes atr{};
  std::copy_n(atrBytes, atrLength, atr.begin());
  const auto fits = [&](const KnownCard& row) {
    const std::string_view rowText(row.atr);
    if (rowText.size() != std::string_view(text.data()).size()) return false;
    if (row.atrMask == nullptr) return strncasecmp(row.atr, text.data(), rowText.size()) == 0;
    if (rowText.size() != std::string_view(row.atrMask).size()) return false;
    return fitsUnderMask(row, atr, atrLength);
  };
  const auto row = std::ranges::find_if(table, fits);
  return row == table.end() ? -1 : static_cast<std::int32_t>(row - table.begin());
}

}  // namespace kestrel
