#include "probe/mechanisms/Operate.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "probe/Values.h"

namespace kestrel::probe {

namespace {

constexpr std::size_t spare = 1024;  // bytes that a result may be longer than its data

Bytes taken(const CK_BYTE* output, CK_ULONG length) {
  return {reinterpret_cast<const char*>(output), length};
}

void begin(Bench& bench, const Kit& kit) {
  bench.work(kit.begin(bench.session));
  if (kit.kind == Kind::sign || kit.kind == Kind::decrypt || kit.kind == Kind::signRecover) {
    bench.control(bench.keys.authenticate(bench.session, kit.key));
  }
}

}  // namespace

Bytes message(std::size_t length) {
  Bytes data(length, '\0');
  for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<char>((i * 37 + i / 251) & 0xff);
  return data;
}

Bytes inOne(Bench& bench, Kit kit, View data) {
  kit.input = data;
  begin(bench, kit);
  auto* const length = bench.memory.out<CK_ULONG>(data.size() + spare);
  CK_BYTE* const output = bench.memory.bytes(*length);
  bench.work(kit.single(bench.session, output, length));
  return taken(output, *length);
}

Bytes inPieces(Bench& bench, const Kit& kit, View data) {
  constexpr std::array<std::size_t, 7> sizes{1, 15, 16, 17, 1, 64, 100000};
  begin(bench, kit);
  Bytes result;
  auto* const length = bench.memory.out<CK_ULONG>(0);
  for (const std::size_t size : sizes) {
    const View part = data.substr(0, size);
    data.remove_prefix(part.size());
    const MemoryScope scope(bench.memory);
    *length = part.size() + spare;
    CK_BYTE* const output = bench.memory.bytes(*length);
    const bool gives = kit.kind == Kind::encrypt || kit.kind == Kind::decrypt;
    bench.work(kit.updateWith(bench.session, part, output, length));
    if (gives) result += taken(output, *length);
  }
  *length = spare;
  CK_BYTE* const output = bench.memory.bytes(*length);
  bench.work(kit.finish(bench.session, output, length));
  return result + taken(output, *length);
}

CK_RV confirm(Bench& bench, Kit kit, View data, View signature, bool inParts) {
  kit.input = data;
  kit.given = signature;
  begin(bench, kit);
  if (!inParts) return kit.single(bench.session, nullptr, nullptr);
  const std::size_t half = data.size() / 2;
  bench.work(kit.updateWith(bench.session, data.substr(0, half), nullptr, nullptr));
  bench.work(kit.updateWith(bench.session, data.substr(half), nullptr, nullptr));
  return kit.finish(bench.session, nullptr, nullptr);
}

Bytes changed(View bytes, std::size_t at) {
  Bytes result(bytes);
  result[at] = static_cast<char>(result[at] ^ 1);
  return result;
}

Checks::Checks(Plan& plan, CK_MECHANISM_TYPE type) : plan_(plan), type_(type) {}

void Checks::add(CK_FLAGS flag, std::string_view name, const char* clause,
                 std::function<void(Bench&)> run) {
  Check check{fmt::format("mechanisms/{}/{}", valueText("CKM_", type_), name),
              Stage::user,
              {CKR_OK},
              clause,
              std::move(run)};
  check.mechanism = NeededMechanism{type_, flag};
  plan_.push_back(std::move(check));
}

}  // namespace kestrel::probe
