#include "probe/buffers/Lengths.h"

#include <fmt/format.h>

#include "probe/buffers/Questions.h"

namespace kestrel::probe {

namespace {

constexpr const char* clause =
    "Conventions for functions returning output in a variable-length buffer";

// One call with room for `length` units, or with none for null.
struct Answer {
  CK_RV result;
  CK_BYTE* output;
  CK_ULONG length;
};

Answer ask(Bench& bench, const Question& question, CK_ULONG room) {
  auto* const length = bench.memory.out<CK_ULONG>(room);
  CK_BYTE* const output = bench.memory.bytes(room * question.unit);
  const CK_RV result = question.ask(output, length);
  return {result, output, *length};
}

Answer askForLength(Bench& bench, const Question& question) {
  auto* const length = bench.memory.out<CK_ULONG>(0);
  const CK_RV result = question.ask(nullptr, length);
  return {result, nullptr, *length};
}

void requireRight(Bench& bench, const Question& question, const Answer& answer) {
  if (answer.length != question.length) {
    bench.wrong(fmt::format("gives {}, and {} with more room", answer.length, question.length));
  }
  const View bytes(reinterpret_cast<const char*>(answer.output), answer.length * question.unit);
  bench.require(question.answer.empty() || bytes == question.answer,
                "the result is another than with more room");
}

// A length was asked for, or the room was short: the operation goes on. More bytes may be asked for
// than will come, but not more entries of a list.
void requireGoesOn(Bench& bench, const Question& question, CK_ULONG told) {
  const bool isList = question.unit > 1;
  if (told < question.length || (isList && told > question.length)) {
    bench.end(Verdict::deviates,
              fmt::format("says that it wants {}, and gives {}", told, question.length));
  }
  const Answer answer = ask(bench, question, told);
  if (answer.result != CKR_OK) {
    bench.end(Verdict::deviates, "with the room that it asked for it fails");
  }
  requireRight(bench, question, answer);
}

void nullAsks(Bench& bench, const QuestionRow& row) {
  const Question question = row.prepare(bench);
  const Answer answer = askForLength(bench, question);
  bench.expect(answer.result);
  requireGoesOn(bench, question, answer.length);
}

void nullAsksTwice(Bench& bench, const QuestionRow& row) {
  const Question question = row.prepare(bench);
  bench.control(askForLength(bench, question).result);
  const Answer answer = askForLength(bench, question);
  bench.expect(answer.result);
  requireGoesOn(bench, question, answer.length);
}

void tooShort(Bench& bench, const QuestionRow& row, CK_ULONG (*roomFor)(CK_ULONG)) {
  const Question question = row.prepare(bench);
  if (question.length == 0) bench.notApplicable("it gives nothing here");
  const Answer answer = ask(bench, question, roomFor(question.length));
  bench.expect(answer.result);
  requireGoesOn(bench, question, answer.length);
}

void oneShort(Bench& bench, const QuestionRow& row) {
  tooShort(bench, row, [](CK_ULONG length) { return length - 1; });
}

void half(Bench& bench, const QuestionRow& row) {
  tooShort(bench, row, [](CK_ULONG length) { return length / 2; });
}

void noRoom(Bench& bench, const QuestionRow& row) {
  tooShort(bench, row, [](CK_ULONG) { return CK_ULONG{0}; });
}

void exact(Bench& bench, const QuestionRow& row) {
  const Question question = row.prepare(bench);
  const Answer answer = ask(bench, question, question.length);
  bench.expect(answer.result);
  if (answer.result == CKR_OK) requireRight(bench, question, answer);
}

void larger(Bench& bench, const QuestionRow& row) {
  const Question question = row.prepare(bench);
  const Answer answer = ask(bench, question, question.length + 1000);
  bench.expect(answer.result);
  requireRight(bench, question, answer);
}

void noLength(Bench& bench, const QuestionRow& row) {
  const Question question = row.prepare(bench);
  bench.expect(question.ask(bench.memory.bytes(question.length * question.unit), nullptr));
}

struct Step {
  const char* name;
  Expected expected;
  void (*run)(Bench&, const QuestionRow&);
  bool undefined = false;
};

constexpr Step steps[] = {
    {"null-asks", {CKR_OK}, nullAsks},
    {"null-asks-twice", {CKR_OK}, nullAsksTwice},
    {"no-room", {CKR_BUFFER_TOO_SMALL}, noRoom},
    {"half", {CKR_BUFFER_TOO_SMALL}, half},
    {"one-short", {CKR_BUFFER_TOO_SMALL}, oneShort},
    {"exact", {CKR_OK}, exact},
    {"larger", {CKR_OK}, larger},
    {"no-length", {CKR_ARGUMENTS_BAD}, noLength, true},
};

}  // namespace

void addLengths(Plan& plan) {
  for (const QuestionRow& row : questionRows()) {
    for (const Step& step : steps) {
      Expected expected = step.expected;
      // What the room is for may be known at the end alone.
      if (row.knowsLengthLate && step.run == exact) expected = {CKR_OK, CKR_BUFFER_TOO_SMALL};
      Check check{fmt::format("buffers/{}/{}", nameOf(row.function), step.name), row.stage,
                  expected, clause};
      check.function = row.function;
      check.undefined = step.undefined;
      check.run = [&row, &step](Bench& bench) { step.run(bench, row); };
      plan.push_back(std::move(check));
    }
  }
}

}  // namespace kestrel::probe
