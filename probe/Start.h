// What stands before and behind the areas: the way to a token and a user who is logged in, what the
// token says of itself, and what was looked at all the while.
#pragma once

#include <optional>

#include "probe/Board.h"
#include "probe/Check.h"
#include "shim/TokenPattern.h"

namespace kestrel::probe {

// Loads and initialises the module and finds the token, whose facts the board then has.
Plan planToken(Board& board, const std::optional<TokenPattern>& wanted);

// Opens a session, logs in if the token wants that, and counts the objects on the token.
Plan planLogin(Board& board);

// Removes what checks of ours have left on the token, if they were to (`leaves`), and counts again.
Plan planObjects(Board& board, bool leaves);

// A check for each function that was called: whether it only returned values of its list.
std::vector<std::pair<Check, Finding>> watchedFunctions(const Board& board);

}  // namespace kestrel::probe
