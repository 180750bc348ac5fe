// How a test ended.
#pragma once

// The order is from good to bad: of several runs of a test the worst is shown.
enum class Outcome {
  passed,
  notRun,         // why: in Run::reason
  nothingTested,  // kestrel passed, but no signature was verified, nothing decrypted, no token met
  failed,
  couldNotLoad,
  crashed,
  hung,
};

// "passed", "not run", "nothing tested", "failed", "could not load", "crashed", "hung".
const char* outcomeName(Outcome outcome);
