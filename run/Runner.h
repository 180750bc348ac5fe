// Runs every test on every module.
#pragma once

#include "run/Options.h"
#include "run/process/Interrupt.h"
#include "run/process/OperatorTerminal.h"
#include "run/process/Pins.h"
#include "run/results/Results.h"
#include "run/write/Display.h"

namespace kestrel::run {

// Each run of a test is a process of its own. A test that fails, crashes or hangs leaves the others
// to run; a PIN that was refused does not, where they log in. An interrupt ends it early.
Results runTests(const Options& options, PinSets& pins, Interrupt& interrupt,
                 OperatorTerminal* terminal, Display& display);

}  // namespace kestrel::run
