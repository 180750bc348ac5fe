// The processes that others left behind.
#pragma once

#include <sys/types.h>

#include <set>

namespace kestrel {

// The children of this process. Costs a look at every process of the machine.
std::set<pid_t> childProcesses();

// Kills and reaps every child of this process except those of `spared`, and the children that each
// of them leaves, until there is none. Gives up on one that cannot be killed. Costs nothing to
// speak of while there is none.
void killChildren(const std::set<pid_t>& spared);

}  // namespace kestrel
