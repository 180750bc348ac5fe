// What is wrong with the arguments of a call, where all else is in order.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addSlotErrors(Plan& plan);       // slots, sessions, logins
void addHandleErrors(Plan& plan);     // objects and keys that are not there
void addKeyErrors(Plan& plan);        // keys of a wrong type, and those that may not
void addMechanismErrors(Plan& plan);  // mechanisms and their parameters
void addDataErrors(Plan& plan);       // lengths, and what was damaged
void addTemplateErrors(Plan& plan);
void addUndefinedArguments(Plan& plan);

}  // namespace kestrel::probe
