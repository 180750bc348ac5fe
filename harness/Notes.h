// What a run says beside its report, which has no place for it: to whoever started it and gave it
// KESTREL_NOTES, the name of a file.
#pragma once

#include <string_view>

namespace kestrel {

// The signature passed, as the report says, because nothing could check it: the certificate beside
// the key is of another kind.
inline constexpr std::string_view uncheckedNote = "signature not checked";

// The test ended because another value than this was expected, or in this function, which the
// report calls by another name: what comes behind it.
inline constexpr std::string_view expectedNote = "expected ", functionNote = "function ";

// Adds a line to the file. A note that cannot be written is lost.
void note(std::string_view line);

}  // namespace kestrel
