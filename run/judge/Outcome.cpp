#include "run/judge/Outcome.h"

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::passed:
      return "passed";
    case Outcome::notRun:
      return "not run";
    case Outcome::nothingTested:
      return "nothing tested";
    case Outcome::failed:
      return "failed";
    case Outcome::couldNotLoad:
      return "could not load";
    case Outcome::crashed:
      return "crashed";
    case Outcome::hung:
      return "hung";
  }
  return "unknown";
}
