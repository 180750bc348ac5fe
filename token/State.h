// What the software token knows while it is loaded.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "harness/Openssl.h"
#include "token/Config.h"

namespace kestrel::token {

// How a key is used: what a mechanism and its parameters come to.
struct Scheme {
  int padding = 0;
  bool hashes = false;             // the token hashes the data itself
  const EVP_MD* digest = nullptr;  // of that, and of the padding
  const EVP_MD* mask = nullptr;    // of the padding's mask generation
  int saltLength = 0;
  std::string label = {};
};

struct Session {
  Slot* slot = nullptr;
  bool readWrite = false, searching = false;
  std::vector<CK_OBJECT_HANDLE> found = {};

  struct Operation {
    const Object* key = nullptr;  // null while none is active
    Scheme scheme = {};
    DigestContextOwner hash = nullptr;  // of the data, if the token hashes it
    std::string data = {};              // if not
    bool inParts = false, done = false;
  } sign = {}, decrypt = {};

  // A login for one use of a key that wants that; and whether such a use was refused for want of
  // it.
  bool contextLoggedIn = false, contextRefused = false;
};

struct Token {
  Config config = readConfig();
  bool initialized = false;
  pid_t process = 0;           // that initialised it: to a child it is not
  unsigned finalizations = 0;  // each ends the calls that wait for an event
  std::map<CK_SESSION_HANDLE, Session> sessions;
  CK_SESSION_HANDLE lastSession = 0;
  std::map<std::string, int> calls;
  std::map<std::string, KeyOwner> keys;  // by name, once they are asked for
  std::mutex mutex;
};

// It is there until the module is unloaded, and at the end of the process longer than any thread.
Token& token();

// As before C_Initialize.
void finalize();

// Ends the sessions of a slot, or one of them; with the last one the user is logged out.
void closeSessions(Slot& slot, CK_SESSION_HANDLE only = 0);

// What the user's keys were doing is over, and their handles are void.
void logOut(Slot& slot);

}  // namespace kestrel::token
