#include "probe/JsonLines.h"

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

#include "common/FitText.h"
#include "probe/Values.h"

namespace kestrel::probe {

namespace {

using Object = nlohmann::ordered_json;

constexpr unsigned version = 1;

Object expectedNames(const Expected& expected) {
  Object names = Object::array();
  for (const CK_RV value : expected) names.push_back(valueText("CKR_", value));
  return names;
}

std::string clauseOf(const Check& check) {
  return check.clause.empty() ? "" : std::string("PKCS #11, ").append(check.clause);
}

}  // namespace

void JsonLines::Closer::operator()(std::FILE* file) const {
  if (file != stdout) std::fclose(file);
}

JsonLines::JsonLines(const std::string& path)
    : path_(path), file_(path == "-" ? stdout : std::fopen(path.c_str(), "we")) {
  if (file_ == nullptr) throw std::system_error(errno, std::generic_category(), path);
}

void JsonLines::write(const std::string& line) {
  std::fputs((line + "\n").c_str(), file_.get());
  std::fflush(file_.get());
}

void JsonLines::begin(const std::string& module, const std::string& token,
                      const std::string& started) {
  write(Object{{"version", version},
               {"kestrel", KESTREL_VERSION},
               {"module", validUtf8(module)},
               {"token", validUtf8(token)},
               {"started", started}}
            .dump());
}

void JsonLines::add(const Check& check, const Finding& finding) {
  write(Object{{"check", check.path},
               {"verdict", rowOf(finding.verdict).name},
               {"call", finding.call},
               {"value", finding.value ? Object(*finding.value) : Object()},
               {"name", finding.value ? valueText("CKR_", *finding.value) : ""},
               {"expected", expectedNames(check.expected)},
               {"clause", clauseOf(check)},
               {"detail", validUtf8(finding.detail)},
               {"seconds", finding.seconds}}
            .dump());
}

void JsonLines::end(const Totals& totals, bool interrupted) {
  Object counts = Object::object();
  for (const VerdictRow& row : verdictRows) {
    counts[row.name] = totals[static_cast<std::size_t>(row.verdict)];
  }
  write(Object{{"totals", counts}, {"interrupted", interrupted}}.dump());
}

void JsonLines::beginList() {
  write(Object{{"version", version}, {"kestrel", KESTREL_VERSION}}.dump());
}

void JsonLines::list(const Check& check) {
  write(Object{{"check", check.path},
               {"expected", expectedNames(check.expected)},
               {"clause", clauseOf(check)}}
            .dump());
}

void JsonLines::endList(std::size_t checks, std::size_t functions, std::size_t mechanisms) {
  write(Object{{"checks", checks}, {"functions", functions}, {"mechanisms", mechanisms}}.dump());
}

void JsonLines::finish() {
  if (std::ferror(file_.get()) != 0 || std::fflush(file_.get()) != 0) {
    throw std::system_error(errno == 0 ? EIO : errno, std::generic_category(), path_);
  }
}

}  // namespace kestrel::probe
