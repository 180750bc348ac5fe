#include "probe/Area.h"
#include "probe/errors/ArgumentErrors.h"
#include "probe/errors/Library.h"
#include "probe/errors/Matrix.h"
#include "probe/errors/Operations.h"

namespace kestrel::probe {

void addErrors(Plan& plan, const TokenFacts*) {
  addMatrix(plan);
  addLibraryErrors(plan);
  addSlotErrors(plan);
  addOperationErrors(plan);
  addMechanismErrors(plan);
  addHandleErrors(plan);
  addKeyErrors(plan);
  addDataErrors(plan);
  addTemplateErrors(plan);
  addUndefinedArguments(plan);
}

}  // namespace kestrel::probe
