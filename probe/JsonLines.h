// The results as JSON lines, which kestrel-probe(1) describes.
#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <string>

#include "probe/Check.h"

namespace kestrel::probe {

using Totals = std::array<std::size_t, verdictCount>;  // by the number of a verdict

class JsonLines {
 public:
  // "-" for standard output. Throws std::system_error.
  explicit JsonLines(const std::string& path);

  void begin(const std::string& module, const std::string& token, const std::string& started);
  void add(const Check& check, const Finding& finding);
  void end(const Totals& totals, bool interrupted);

  // Checks without verdicts.
  void beginList();
  void list(const Check& check);
  void endList(std::size_t checks, std::size_t functions, std::size_t mechanisms);

  // Throws std::system_error unless all of it has been written.
  void finish();

 private:
  struct Closer {
    void operator()(std::FILE* file) const;
  };
  void write(const std::string& line);

  std::string path_;
  std::unique_ptr<std::FILE, Closer> file_;
};

}  // namespace kestrel::probe
