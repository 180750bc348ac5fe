// The module that a worker has loaded, and the steps from there to a user who is logged in.
#pragma once

#include <stdexcept>
#include <string>

#include "probe/Calls.h"
#include "probe/Check.h"
#include "probe/Worker.h"

namespace kestrel::probe {

// A step towards the stage that a check begins at did not work.
struct SetUpFailed {
  Finding finding;
};

class Module {
 public:
  Module(Board& board, const Target& target, Caller& caller)
      : board_(board), target_(target), caller_(caller) {}

  Stage stage() const { return stage_; }

  // Whether a stage can still be reached from the one that this process is at.
  bool canReach(Stage stage) const;

  // Throws SetUpFailed, and CallEnded.
  void reach(Stage stage);

  // Open as long as the process lives: what belongs to it outlives the sessions of the checks. From
  // Stage::session on.
  CK_SESSION_HANDLE session() const { return session_; }

  // Another session. Throws SetUpFailed.
  CK_SESSION_HANDLE openSession();

  // C_Initialize with what the operator has for it.
  CK_RV callInitialize();

  // C_Login with the PIN, which there is.
  CK_RV givePin(CK_SESSION_HANDLE session, CK_USER_TYPE type);

  // Logs out, closes and finalises, as far as there is anything of that.
  void leave();

 private:
  void load();
  void initialize();
  void finalize();
  void logIn();
  void require(CK_RV value) const;

  Board& board_;
  const Target& target_;
  Caller& caller_;
  bool loaded_ = false;
  Stage stage_ = Stage::loaded;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
};

}  // namespace kestrel::probe
