#include "run/results/Facts.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "common/FitText.h"

namespace kestrel::run {

namespace {

using Json = nlohmann::ordered_json;

}  // namespace

const TokenFacts* ModuleFacts::tokenAt(std::uint64_t position) const {
  const auto found = std::ranges::find(tokens, position, &TokenFacts::position);
  return found == tokens.end() ? nullptr : &*found;
}

std::string toJson(const ModuleFacts& facts) {
  Json tokens = Json::array();
  for (const TokenFacts& token : facts.tokens) {
    tokens.push_back({{"position", token.position},
                      {"label", validUtf8(token.label)},
                      {"model", validUtf8(token.model)},
                      {"serial", validUtf8(token.serial)},
                      {"firmware", validUtf8(token.firmware)},
                      {"flags", token.flags}});
  }
  return Json{{"library", validUtf8(facts.library)},
              {"version", validUtf8(facts.version)},
              {"sha256", facts.sha256},
              {"tokens", std::move(tokens)}}
      .dump();
}

ModuleFacts factsFromJson(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  try {
    ModuleFacts facts{json.at("library"), json.at("version"), json.at("sha256"), {}};
    for (const Json& token : json.at("tokens")) {
      facts.tokens.push_back({token.at("position"), token.at("label"), token.at("model"),
                              token.at("serial"), token.at("firmware"), token.at("flags")});
    }
    return facts;
  } catch (const Json::exception&) {
    return {};
  }
}

std::vector<std::string> describe(const ModuleFacts& facts) {
  std::vector<std::string> lines;
  for (const TokenFacts& token : facts.tokens) {
    lines.push_back(fmt::format("token \"{}\" ({}, serial {}, firmware {})", token.label,
                                token.model, token.serial, token.firmware));
  }
  if (!facts.library.empty()) lines.push_back(fmt::format("{} {}", facts.library, facts.version));
  if (!facts.sha256.empty()) lines.push_back("SHA-256 " + facts.sha256);
  return lines;
}

}  // namespace kestrel::run
