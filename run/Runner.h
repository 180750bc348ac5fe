// Runs every test on every module.
#pragma once

#include "run/Display.h"
#include "run/Interrupt.h"
#include "run/Options.h"
#include "run/Pins.h"
#include "run/Results.h"
#include "run/Terminal.h"

// Each run of a test is a process of its own. A test that fails, crashes or hangs leaves the others
// to run; a PIN that was refused does not, where they log in. An interrupt ends it early.
Results runTests(const Options& options, Pins& pins, Interrupt& interrupt, Terminal* terminal,
                 Display& display);
