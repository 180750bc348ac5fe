#include "common/FitText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace kestrel {

namespace {

struct Character {
  char32_t code = 0;
  std::size_t length = 0;  // in bytes; 0 when the bytes are no UTF-8
};

// The first character of `bytes`, which are not empty.
Character decode(std::string_view bytes) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  if (byte(0) < 0x80) return {byte(0), 1};
  constexpr struct {
    unsigned char mask, lead;
    char32_t least;
  } forms[] = {{0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
  for (std::size_t more = 1; more <= std::size(forms) && more < bytes.size(); ++more) {
    const auto& form = forms[more - 1];
    if ((byte(0) & form.mask) != form.lead) continue;
    char32_t code = byte(0) & static_cast<unsigned char>(~form.mask);
    for (std::size_t i = 1; i <= more; ++i) {
      if ((byte(i) & 0xc0) != 0x80) return {};
      code = code << 6 | (byte(i) & 0x3f);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < form.least || code > 0x10ffff || surrogate) return {};
    return {code, more + 1};
  }
  return {};
}

struct Range {
  char32_t first, last;
};

// Characters that a terminal or a browser obeys instead of showing them, or that nobody sees: C1,
// the soft hyphen, marks and overrides of direction, separators, joiners, tags, and no characters.
constexpr Range unseen[] = {
    {0x7f, 0x9f},     {0xad, 0xad},     {0x61c, 0x61c},   {0x200b, 0x200f}, {0x2028, 0x202e},
    {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xfff0, 0xfffb}, {0xfffe, 0xffff}, {0xe0000, 0xe0fff},
};

bool isSeen(char32_t code) {
  if (code < 0x7f) return code >= 0x20;
  return std::none_of(std::begin(unseen), std::end(unseen),
                      [&](Range range) { return code >= range.first && code <= range.last; });
}

// `bytes` with everything escaped but the characters of which `isFit` is true.
template <typename IsFit>
std::string escaped(std::string_view bytes, IsFit isFit) {
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    const Character character = decode(bytes);
    std::size_t length = std::max<std::size_t>(character.length, 1);
    if (character.length != 0 && isFit(character.code)) {
      text += bytes.substr(0, length);
    } else if (length > 1) {
      fmt::format_to(std::back_inserter(text), "\\u{:04x}",
                     static_cast<std::uint32_t>(character.code));
    } else {
      length = std::min(bytes.find_first_not_of(bytes[0]), bytes.size());
      // What begins no character before its like may begin one at the end of the run.
      if (character.length == 0 && decode(bytes.substr(length - 1)).length != 0) --length;
      const auto byte = static_cast<unsigned char>(bytes[0]);
      constexpr char digits[] = "0123456789abcdef";
      const char one[] = {'\\', 'x', digits[byte >> 4], digits[byte & 0xf], '\0'};
      if (length > 3) {
        fmt::format_to(std::back_inserter(text), "{}{{{}}}", one, length);
      } else {
        for (std::size_t i = 0; i < length; ++i) text += one;
      }
    }
    bytes.remove_prefix(length);
  }
  return text;
}

}  // namespace

std::string visible(std::string_view bytes, Lines lines) {
  return escaped(bytes, [&](char32_t code) {
    return isSeen(code) || (lines == Lines::kept && (code == '\n' || code == '\t'));
  });
}

std::string validUtf8(std::string_view bytes) {
  return escaped(bytes, [](char32_t code) {
    return (code >= 0x20 && code != 0xfffe && code != 0xffff) || code == '\t' || code == '\n' ||
           code == '\r';
  });
}

}  // namespace kestrel
