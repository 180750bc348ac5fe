// The areas: what the checks of each are, as far as the token's mechanisms have a say in that.
#pragma once

#include "probe/Board.h"
#include "probe/Check.h"

namespace kestrel::probe {

struct Area {
  const char* name;         // before the first '/' of its checks' paths
  const char* description;  // for the help
  // Adds the checks, in their order. `facts` of a token: null to list them without one.
  void (*add)(Plan& plan, const TokenFacts* facts);
  bool byDefault = true;
};

void addMechanisms(Plan& plan, const TokenFacts* facts);
void addBuffers(Plan& plan, const TokenFacts* facts);
void addSecrets(Plan& plan, const TokenFacts* facts);
void addErrors(Plan& plan, const TokenFacts* facts);

}  // namespace kestrel::probe
