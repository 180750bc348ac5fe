#include "probe/Area.h"
#include "probe/errors/Library.h"
#include "probe/errors/Matrix.h"
#include "probe/errors/Operations.h"

namespace kestrel::probe {

void addErrors(Plan& plan, const TokenFacts*) {
  addMatrix(plan);
  addLibraryErrors(plan);
  addOperationErrors(plan);
}

}  // namespace kestrel::probe
