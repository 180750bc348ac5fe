// What was tested: the module and its tokens, by their own words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::run {

// A token, without the blanks at the end of its texts.
struct TokenFacts {
  std::uint64_t position = 0;  // of its slot in the module's list
  std::string label, model, serial, firmware;
  std::uint64_t flags = 0;  // of CK_TOKEN_INFO
};

// Of a module that could be looked at; without a library's name it could not.
struct ModuleFacts {
  std::string library, version;  // of CK_INFO
  std::string sha256;            // of the file, in hexadecimal
  std::vector<TokenFacts> tokens;

  const TokenFacts* tokenAt(std::uint64_t position) const;  // null for none
};

// As JSON, and back. Nothing for a text that is none: a module may have written it.
std::string toJson(const ModuleFacts& facts);
ModuleFacts factsFromJson(const std::string& text);

// "token "own" (SoftHSM v2, serial 12, firmware 2.6), Implementation of PKCS11 2.6, SHA-256 ab12":
// a line each, for those who read.
std::vector<std::string> describe(const ModuleFacts& facts);

}  // namespace kestrel::run
