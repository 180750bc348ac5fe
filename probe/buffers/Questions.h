// Every function that answers with bytes or with a list, as a question that can be asked with any
// room: what is asked of their lengths is the same for all.
#pragma once

#include <functional>
#include <span>

#include "probe/Bench.h"

namespace kestrel::probe {

// Ready to be asked: what has to go before it has been called.
struct Question {
  // `output` may be null; `length` counts bytes, or entries.
  std::function<CK_RV(CK_BYTE* output, CK_ULONG* length)> ask;
  CK_ULONG length = 0;   // of the right answer
  Bytes answer = {};     // the right one; empty where it differs each time
  std::size_t unit = 1;  // bytes of an entry
};

struct QuestionRow {
  FunctionId function;
  Stage stage;
  // Ends the check where that is not to be had. Each call makes it ready anew.
  Question (*prepare)(Bench&);
  bool knowsLengthLate = false;  // as decryption may
};

std::span<const QuestionRow> questionRows();

}  // namespace kestrel::probe
