// A module whose functions are those of the test that loads it.
#include <sched.h>

#include "harness/Pkcs11.h"

extern "C" {

CK_FUNCTION_LIST functions{};

// What a thread of the module does.
[[noreturn]] void keepBusy() {
  for (;;) sched_yield();
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  *list = &functions;
  return CKR_OK;
}
}
