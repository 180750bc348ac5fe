// What the operator sees.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "probe/Check.h"
#include "probe/JsonLines.h"

namespace kestrel::probe {

class Display {
 public:
  // `command` is what tries a check again, without the check's name.
  Display(std::FILE* stream, bool verbose, std::string command);

  void begin(const std::string& token, std::size_t checks);
  void running(const Check& check, double seconds);
  void fell(const Check& check, const Finding& finding);

  // By area how many of each verdict, and what is worth reading, worst first.
  void finish(bool interrupted, double seconds);

  // Whether all of it has been written.
  bool complete() const { return std::ferror(stream_) == 0; }

 private:
  struct Told {
    std::string path, clause, expected;
    Finding finding;
  };

  void print(const std::string& line);
  void clear();
  std::string painted(Verdict verdict, const std::string& text) const;
  void table();
  void reasons();
  void tell(const Told& told);

  std::FILE* stream_;
  bool verbose_, moving_, colors_;
  std::string command_;
  std::size_t done_ = 0, checks_ = 0;
  std::vector<std::pair<std::string, Totals>> areas_;  // in the order in which they came
  std::map<std::string, std::size_t> reasons_;
  std::vector<Told> told_;
};

}  // namespace kestrel::probe
