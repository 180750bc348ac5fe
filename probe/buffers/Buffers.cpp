#include "probe/Area.h"
#include "probe/buffers/AttributeBuffers.h"
#include "probe/buffers/Lengths.h"

namespace kestrel::probe {

void addBuffers(Plan& plan, const TokenFacts*) {
  addLengths(plan);
  addAttributeBuffers(plan);
}

}  // namespace kestrel::probe
