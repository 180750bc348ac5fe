#include "run/write/HtmlParts.h"

#include <fmt/format.h>

namespace kestrel::run::html {

void addText(Node node, std::string_view text, Lines lines) {
  node.append_child(pugi::node_pcdata).set_value(visible(text, lines).c_str());
}

Node add(Node parent, const char* tag, const char* style, std::string_view text) {
  Node node = parent.append_child(tag);
  if (*style != '\0') node.append_attribute("class") = style;
  if (!text.empty()) addText(node, text);
  return node;
}

Node addScrolling(Node parent, const char* tag, const char* label) {
  Node node = add(parent, tag);
  node.append_attribute("tabindex") = "0";
  node.append_attribute("role") = "region";
  node.append_attribute("aria-label") = label;
  return node;
}

void addBreakable(Node node, std::string_view text) {
  constexpr std::size_t prefix = 4;
  std::size_t start = 0, word = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    word = text[i] == ' ' ? 0 : word + 1;
    if (text[i] != '_' || word <= prefix) continue;
    addText(node, text.substr(start, i + 1 - start));
    add(node, "wbr");
    start = i + 1;
  }
  addText(node, text.substr(start));
}

std::string plural(std::size_t count, const char* thing) {
  return fmt::format("{} {}{}", count, thing, count == 1 ? "" : "s");
}

std::string seconds(double time) {
  return fmt::format("{:.{}f} s", time, time < 10 ? 2 : 1);
}

void addMarked(Node parent, Outcome outcome) {
  Node mark = add(parent, "span", "mark", rowOf(outcome).mark);
  mark.append_attribute("aria-hidden") = "true";
  add(parent, "strong", "", outcomeName(outcome));
}

std::string badge(const char* style) {
  return fmt::format("badge {}", style);
}

void addChangeBadge(Node parent, const Change* change) {
  if (change == nullptr || change->kind == Change::same) return;
  const char* const name = changeName(change->kind);
  add(parent, "span", badge(name).c_str(), name);
}

std::string anchor(std::size_t module, const std::string& test) {
  return fmt::format("{}-{}", module + 1, visible(test));
}

}  // namespace kestrel::run::html
