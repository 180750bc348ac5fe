// Text of a module made fit to be shown: a module prints what it likes, so a report may hold any
// byte.
//
// A byte that must not be shown becomes \xNN, a character \uNNNN, and more than three of the same
// byte in a row become one with their number behind: \x00{195}. What is fit already stays as it
// is, backslashes too, so that both functions leave their own result alone.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

enum class Lines { escaped, kept };  // line feeds and tabs

// For people: without control characters, invalid UTF-8 and what turns, hides or breaks the text
// around it. Is fit for XML and HTML as well.
std::string visible(std::string_view bytes, Lines lines = Lines::escaped);

// For programs: valid UTF-8 with the characters that XML 1.0 has, and no other change.
std::string validUtf8(std::string_view bytes);

}  // namespace kestrel
