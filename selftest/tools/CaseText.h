// Lines of text: taken apart, held against what a case expects of them, and their difference.
#pragma once

#include <string>
#include <utility>
#include <vector>

using Lines = std::vector<std::string>;

Lines lines(const std::string& text);
std::string joined(const Lines& lines);
Lines words(const std::string& text);

// What is left and right of the first separator; all is left if there is none.
std::pair<std::string, std::string> split(const std::string& text, const std::string& separator);

std::string replaced(std::string text, const std::string& what, const std::string& with);

// Bytes that a reader would not see, written as a case writes them.
std::string visible(const std::string& text);

// "[..]" in the pattern is any part of the line.
bool lineMatches(const std::string& pattern, const std::string& actual);

// "..." in what is expected stands for any lines. What is not there comes behind "-", what is there
// and should not behind "+", with the lines around it; all is empty if the texts match.
std::string difference(const Lines& expected, const Lines& actual);
