#include "harness/Bytes.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <iostream>
#include <string>

namespace {

constexpr char hexDigits[] = "0123456789abcdef";
constexpr std::uint32_t bytesPerLine = 16;

void appendHex(std::string& line, std::uint8_t byte) {
  line += hexDigits[byte >> 4];
  line += hexDigits[byte & 0xf];
}

char printable(std::uint8_t byte) {
  return byte >= 32 && byte <= 126 ? static_cast<char>(byte) : '.';
}

// One line without its end: the offset, the bytes padded to sixteen groups, their characters.
void appendDumpLine(std::string& line, const std::uint8_t* bytes, std::uint32_t offset,
                    std::uint32_t count) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    appendHex(line, static_cast<std::uint8_t>(offset >> shift));
  }
  line += ": ";
  for (std::uint32_t i = 0; i < count; ++i) {
    appendHex(line, bytes[offset + i]);
    line += ' ';
  }
  line.append(3 * (bytesPerLine - count) + 2, ' ');
  for (std::uint32_t i = 0; i < count; ++i) line += printable(bytes[offset + i]);
}

}  // namespace

void hexDump(const void* buffer, std::uint32_t length) {
  if (buffer == nullptr || length == 0) {
    std::cout << std::dec << "HexDump ? bufferLen = " << length << " or NULL buffer passed\n";
    return;
  }
  const auto* bytes = static_cast<const std::uint8_t*>(buffer);
  std::string line;
  for (std::uint32_t offset = 0, count = 0; offset < length; offset += count) {
    count = std::min(bytesPerLine, length - offset);
    line.clear();
    appendDumpLine(line, bytes, offset, count);
    line += '\n';
    std::cout << line;
  }
  // Numbers printed after a dump come out in hexadecimal: reports are compared with that.
  std::cout << '\n' << std::hex << std::setfill('0');
}

std::uint32_t bytesToHex(const std::uint8_t* input, std::uint64_t inputLength, char* output,
                         std::uint64_t outputSize, std::uint32_t separator) {
  if (input == nullptr || output == nullptr) return hexTextInvalid;
  const std::uint64_t capacity = separator == 0 ? (outputSize - 1) / 2 : outputSize / 3;
  if (outputSize == 0 || inputLength > capacity) return hexTextTooLong;
  for (std::uint64_t i = 0; i < inputLength; ++i) {
    if (i != 0 && separator != 0) *output++ = static_cast<char>(separator);
    *output++ = hexDigits[input[i] >> 4];
    *output++ = hexDigits[input[i] & 0xf];
  }
  *output = '\0';
  return hexTextOk;
}
