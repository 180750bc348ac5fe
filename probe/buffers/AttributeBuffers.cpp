#include "probe/buffers/AttributeBuffers.h"

#include <algorithm>

#include "probe/Bench.h"
#include "probe/Templates.h"

namespace kestrel::probe {

namespace {

constexpr View label = "kestrel-probe attributes";
constexpr View secret = "a value of 24 bytes.....";
constexpr CK_ULONG unavailable = CK_UNAVAILABLE_INFORMATION;

// A session key whose value is sensitive, with a label.
CK_OBJECT_HANDLE makeKey(Bench& bench, bool sensitive = true, View id = "id") {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, CK_ULONG{CKK_GENERIC_SECRET})
      .add(CKA_TOKEN, false)
      .add(CKA_LABEL, label)
      .add(CKA_ID, id)
      .add(CKA_SENSITIVE, sensitive)
      .add(CKA_EXTRACTABLE, !sensitive)
      .add(CKA_VALUE, secret);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(0);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key));
  return *key;
}

// What is asked of one attribute.
struct Asked {
  CK_ATTRIBUTE_TYPE type;
  CK_ULONG room;    // `unavailable` for a null pointer
  CK_ULONG answer;  // the length that is to come back
  View value = {};  // that is to be there; empty for a room that stays as it is
};

struct AttributeRow {
  const char* name;
  Expected expected;
  std::array<Asked, 4> asked;
  std::size_t count;
};

constexpr CK_ATTRIBUTE_TYPE unknownType = CKA_VENDOR_DEFINED | 0x7eb1;

constexpr Asked goodLabel{CKA_LABEL, label.size(), label.size(), label};
constexpr Asked goodId{CKA_ID, 2, 2, "id"};
constexpr Asked secretValue{CKA_VALUE, secret.size(), unavailable};
constexpr Asked shortLabel{CKA_LABEL, label.size() - 1, unavailable};
constexpr Asked unknown{unknownType, 16, unavailable};
constexpr Asked lengthOfLabel{CKA_LABEL, unavailable, label.size()};
constexpr Asked lengthOfSecret{CKA_VALUE, unavailable, unavailable};
constexpr Asked wideLabel{CKA_LABEL, label.size() + 100, label.size(), label};

constexpr AttributeRow attributeRows[] = {
    {"exact", {CKR_OK}, {goodLabel}, 1},
    {"larger", {CKR_OK}, {wideLabel}, 1},
    {"null-asks", {CKR_OK}, {lengthOfLabel}, 1},
    {"several", {CKR_OK}, {goodLabel, goodId, lengthOfLabel}, 3},
    {"one-short", {CKR_BUFFER_TOO_SMALL}, {shortLabel}, 1},
    {"one-short-of-several", {CKR_BUFFER_TOO_SMALL}, {goodId, shortLabel, goodLabel}, 3},
    {"sensitive", {CKR_ATTRIBUTE_SENSITIVE}, {secretValue}, 1},
    {"sensitive-null-asks", {CKR_ATTRIBUTE_SENSITIVE}, {lengthOfSecret}, 1},
    {"sensitive-of-several", {CKR_ATTRIBUTE_SENSITIVE}, {goodLabel, secretValue, goodId}, 3},
    {"unknown", {CKR_ATTRIBUTE_TYPE_INVALID}, {unknown}, 1},
    {"unknown-of-several", {CKR_ATTRIBUTE_TYPE_INVALID}, {goodId, unknown, goodLabel}, 3},
    {"three-faults",
     {CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_BUFFER_TOO_SMALL},
     {secretValue, unknown, shortLabel, goodId},
     4},
};

void readAttributes(Bench& bench, const AttributeRow& row) {
  const CK_OBJECT_HANDLE key = makeKey(bench);
  auto* const attributes = bench.memory.out(CK_ATTRIBUTE{}, row.count);
  for (std::size_t i = 0; i < row.count; ++i) {
    const Asked& asked = row.asked[i];
    const bool asks = asked.room == unavailable;
    attributes[i] = {asked.type, asks ? nullptr : bench.memory.room(asked.room),
                     asks ? 0 : asked.room};
  }
  const CK_RV result = p11::C_GetAttributeValue(bench.session, key, attributes, row.count);
  // Of several faults any may be named.
  // Where several are due, any of them names a mistake.
  bench.expect(result, row.expected.holds(result) ? Expected{result} : row.expected);
  for (std::size_t i = 0; i < row.count; ++i) {
    const Asked& asked = row.asked[i];
    const auto* const value = static_cast<const char*>(attributes[i].pValue);
    if (attributes[i].ulValueLen != asked.answer) {
      bench.end(Verdict::deviates, "a length is not as it has to be");
    }
    if (value == nullptr) continue;
    if (asked.type == CKA_VALUE) {
      bench.require(Memory::isUntouched(value, asked.room), "gives a sensitive value");
    } else if (!asked.value.empty()) {
      bench.require(View(value, asked.answer) == asked.value,
                    "an attribute is missing, or has another value");
    }
  }
}

// --- searches ---

constexpr CK_ULONG keys = 5;

// Five keys of one ID; the search for them has begun.
void beginSearch(Bench& bench) {
  for (CK_ULONG i = 0; i < keys; ++i) makeKey(bench, true, "search");
  Template wanted(bench.memory);
  wanted.add(CKA_ID, View("search")).add(CKA_LABEL, label);
  bench.control(p11::C_FindObjectsInit(bench.session, wanted.in(), wanted.count()));
}

template <CK_ULONG room>
void findIn(Bench& bench) {
  beginSearch(bench);
  std::vector<CK_OBJECT_HANDLE> found;
  for (int calls = 0; calls < 10; ++calls) {
    auto* const count = bench.memory.out<CK_ULONG>(0);
    auto* const objects = bench.memory.out<CK_OBJECT_HANDLE>(0, room);
    bench.expect(p11::C_FindObjects(bench.session, objects, room, count));
    if (*count == 0) break;
    found.insert(found.end(), objects, objects + *count);
  }
  std::ranges::sort(found);
  bench.require(std::ranges::adjacent_find(found) == found.end(), "gives an object twice");
  bench.require(found.size() == keys, "does not give all objects, or too many");
}

void findWithoutRoom(Bench& bench) {
  beginSearch(bench);
  auto* const count = bench.memory.out<CK_ULONG>(0);
  auto* const objects = bench.memory.out<CK_OBJECT_HANDLE>(0, keys);
  bench.expect(p11::C_FindObjects(bench.session, objects, 0, count), {CKR_OK, CKR_ARGUMENTS_BAD});
  bench.expect(p11::C_FindObjects(bench.session, objects, keys, count), {CKR_OK});
  bench.require(*count == keys, "an object is lost by a call without room");
}

// --- random bytes ---

// A token without one says so in every call.
void requireGenerator(Bench& bench) {
  if ((bench.token.flags & CKF_RNG) == 0) bench.notApplicable("the token has no random numbers");
}

template <CK_ULONG length>
void random(Bench& bench) {
  requireGenerator(bench);
  CK_BYTE* const one = bench.memory.bytes(length);
  CK_BYTE* const other = bench.memory.bytes(length);
  bench.expect(p11::C_GenerateRandom(bench.session, one, length));
  bench.expect(p11::C_GenerateRandom(bench.session, other, length));
  if (length < 16) return;
  bench.require(!Memory::isUntouched(one, length), "writes nothing");
  bench.require(!Memory::isUntouched(one + length - 16, 16), "does not fill the room");
  bench.require(!std::equal(one, one + length, other), "gives the same bytes twice");
}

void seed(Bench& bench) {
  requireGenerator(bench);
  bench.expect(p11::C_SeedRandom(bench.session, bench.memory.in("bytes of no great chance"), 24));
  random<32>(bench);
}

struct Row {
  FunctionId function;
  const char* name;
  Expected expected;
  void (*run)(Bench&);
};

constexpr Row rows[] = {
    {FunctionId::C_FindObjects, "room-for-one", {CKR_OK}, findIn<1>},
    {FunctionId::C_FindObjects, "room-for-two", {CKR_OK}, findIn<2>},
    {FunctionId::C_FindObjects, "room-for-all", {CKR_OK}, findIn<keys>},
    {FunctionId::C_FindObjects, "room-for-more", {CKR_OK}, findIn<100>},
    {FunctionId::C_FindObjects, "no-room", {CKR_OK}, findWithoutRoom},
    {FunctionId::C_GenerateRandom, "one-byte", {CKR_OK}, random<1>},
    {FunctionId::C_GenerateRandom, "16-bytes", {CKR_OK}, random<16>},
    {FunctionId::C_GenerateRandom, "1001-bytes", {CKR_OK}, random<1001>},
    {FunctionId::C_GenerateRandom, "100000-bytes", {CKR_OK}, random<100000>},
    {FunctionId::C_SeedRandom, "then-random", {CKR_OK, CKR_RANDOM_SEED_NOT_SUPPORTED}, seed},
};

}  // namespace

void addAttributeBuffers(Plan& plan) {
  const auto add = [&plan](FunctionId function, const char* name,
                           const Expected& expected) -> Check& {
    Check check{std::string("buffers/").append(nameOf(function)).append("/").append(name),
                Stage::user, expected, nameOf(function)};
    check.function = function;
    plan.push_back(std::move(check));
    return plan.back();
  };
  for (const AttributeRow& row : attributeRows) {
    add(FunctionId::C_GetAttributeValue, row.name, row.expected).run = [&row](Bench& bench) {
      readAttributes(bench, row);
    };
  }
  for (const Row& row : rows) add(row.function, row.name, row.expected).run = row.run;
}

}  // namespace kestrel::probe
