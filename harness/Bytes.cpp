#include "harness/Bytes.h"

#include <algorithm>
#include <array>
#include <iomanip>

#include "harness/Output.h"

namespace kestrel {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

// Columns of a dump line: offset, bytes, text.
constexpr std::uint32_t bytesPerLine = 16;
constexpr std::uint32_t bytesColumn = 10;
constexpr std::uint32_t textColumn = bytesColumn + 3 * bytesPerLine + 2;

char* putHex(char* out, std::uint8_t byte) {
  *out++ = hexDigits[byte >> 4];
  *out++ = hexDigits[byte & 0xf];
  return out;
}

char printable(std::uint8_t byte) {
  return byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.';
}

// A last line of fewer bytes has blanks up to the text column.
void dumpLine(const std::uint8_t* bytes, std::uint32_t offset, std::uint32_t count) {
  std::array<char, textColumn + bytesPerLine + 1> line;
  line.fill(' ');
  char* out = line.data();
  for (int shift = 24; shift >= 0; shift -= 8) {
    out = putHex(out, static_cast<std::uint8_t>(offset >> shift));
  }
  *out = ':';
  for (std::uint32_t i = 0; i < count; ++i) {
    putHex(&line[bytesColumn + 3 * i], bytes[i]);
    line[textColumn + i] = printable(bytes[i]);
  }
  line[textColumn + count] = '\n';
  report.write(line.data(), textColumn + count + 1);
}

}  // namespace

void hexDump(const void* buffer, std::uint32_t length) {
  if (buffer == nullptr || length == 0) {
    report << std::dec << "HexDump ? bufferLen = " << length << " or NULL buffer passed\n";
    return;
  }
  const auto* bytes = static_cast<const std::uint8_t*>(buffer);
  for (std::uint32_t offset = 0, count = 0; offset < length; offset += count) {
    count = std::min(bytesPerLine, length - offset);
    dumpLine(bytes + offset, offset, count);
  }
  // Numbers printed after a dump come out in hexadecimal: reports are compared with that.
  report << '\n' << std::hex << std::setfill('0');
}

std::uint32_t bytesToHex(const std::uint8_t* input, std::uint64_t inputLength, char* output,
                         std::uint64_t outputSize, std::uint32_t separator) {
  if (input == nullptr || output == nullptr) return hexTextInvalid;
  const std::uint64_t capacity = separator == 0 ? (outputSize - 1) / 2 : outputSize / 3;
  if (outputSize == 0 || inputLength > capacity) return hexTextTooLong;
  for (std::uint64_t i = 0; i < inputLength; ++i) {
    if (i != 0 && separator != 0) *output++ = static_cast<char>(separator);
    output = putHex(output, input[i]);
  }
  *output = '\0';
  return hexTextOk;
}

}  // namespace kestrel
