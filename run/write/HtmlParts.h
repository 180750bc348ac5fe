// The pieces of which the HTML page is made.
#pragma once

#include <cstddef>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "common/FitText.h"
#include "run/results/Results.h"

namespace kestrel::run::html {

using Node = pugi::xml_node;

void addText(Node node, std::string_view text, Lines lines = Lines::escaped);

// Adds an element with its class and its text, where these are not empty.
Node add(Node parent, const char* tag, const char* style = "", std::string_view text = "");

// An element that scrolls, to be reached, and scrolled, from the keyboard too.
Node addScrolling(Node parent, const char* tag, const char* label);

// Adds text in which long names may break behind their underscores, but for the first, as in CKR_.
void addBreakable(Node node, std::string_view text);

// The mark and the name of an outcome: nothing is said by colour alone.
void addMarked(Node parent, Outcome outcome);

// What became of a test since the baseline; nothing where it is the same.
void addChangeBadge(Node parent, const Change* change);

std::string badge(const char* style);  // the class of a badge
std::string plural(std::size_t count, const char* thing);
std::string seconds(double time);

// Where the details of a test are on the page.
std::string anchor(std::size_t module, const std::string& test);

}  // namespace kestrel::run::html
