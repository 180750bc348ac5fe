// Bytes as text: the hex dump of the reports, and hex digits for texts such as an ATR.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

// Prints `length` bytes sixteen to a line as offset, hexadecimal bytes and printable characters,
// then an empty line. Leaves standard output in hexadecimal with the fill character '0'. A null
// buffer or a length of 0 prints one line that says so, in decimal.
void hexDump(const void* buffer, std::uint32_t length);

// PC/SC status values that bytesToHex() and parseHexText() return.
inline constexpr std::uint32_t hexTextOk = 0;
inline constexpr std::uint32_t hexTextInvalid = 0x80100004;  // SCARD_E_INVALID_PARAMETER
inline constexpr std::uint32_t hexTextTooLong = 0x80100008;  // SCARD_E_INSUFFICIENT_BUFFER

// Writes `inputLength` bytes as zero-terminated lower-case hex digits into `output`, with
// `separator` (a character, 0 for none) between bytes. Nothing is written unless `outputSize`
// characters are enough: 2 a byte and 1 without a separator, 3 a byte with one.
std::uint32_t bytesToHex(const std::uint8_t* input, std::uint64_t inputLength, char* output,
                         std::uint64_t outputSize, std::uint32_t separator);

}  // namespace kestrel
