// What every entry of the software token shares: the record of calls and the answers from outside.
#pragma once

#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>

#include "selftest/token/Config.h"

// One argument as the record shows it.
struct Argument {
  std::string text;
  Argument(CK_ULONG number);
  Argument(const void* pointer);            // null or &
  Argument(const CK_ULONG* number);         // null or &value
  Argument(const CK_MECHANISM* mechanism);  // type and parameter
  Argument(const CK_ATTRIBUTE* attributes, CK_ULONG count, bool values);
  Argument(const CK_BYTE* bytes, CK_ULONG count);  // hexadecimal, or the count alone if long
};

struct Session {
  Slot* slot = nullptr;
  bool readWrite = false, searching = false;
  std::vector<CK_OBJECT_HANDLE> found;
  struct Operation {
    bool active = false;
    CK_MECHANISM_TYPE mechanism = 0;
    const Object* key = nullptr;
    std::string data;
  } sign, decrypt;
};

struct Token {
  Config config = readConfig();
  bool initialized = false;
  std::map<CK_SESSION_HANDLE, Session> sessions;
  CK_SESSION_HANDLE lastSession = 0;
  std::map<std::string, int> calls;
  std::mutex mutex;
};

Token& token();

using Body = std::function<CK_RV()>;

// Runs one entry: records the call, answers from the overrides if they say so, wants the module to
// be initialised unless `early`, runs `body`, and then alters `outputs` if they say so.
CK_RV enter(const char* name, std::initializer_list<Argument> arguments,
            const std::vector<CK_ULONG*>& outputs, const Body& body, bool early = false);

// The same for entries on a session, an open one.
CK_RV withSession(const char* name, CK_SESSION_HANDLE handle,
                  std::initializer_list<Argument> arguments, const std::vector<CK_ULONG*>& outputs,
                  const std::function<CK_RV(Session&)>& body);
