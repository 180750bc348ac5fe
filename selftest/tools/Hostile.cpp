// A module that stands before the software token ($TOKEN) and does to its process what $HOSTILE
// says, when it is asked for a slot.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "harness/Pkcs11.h"

namespace {

CK_FUNCTION_LIST own, *token;

void leaveDaemon() {
  if (fork() != 0) return;
  setsid();
  if (fork() != 0) _exit(0);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::signal(number, SIG_IGN);
  for (;;) pause();  // and keeps the pipes open
}

void leaveLitter() {
  if (mkdir("closed", 0700) != 0 || symlink("/", "closed/root") != 0) std::abort();
  for (const char* folder : {"closed", "."}) chmod(folder, 0);
  if (chdir("/") != 0) std::abort();
}

// Of another slot than the one that is asked next.
void imitatePrompt() {
  std::printf("Enter PIN for the card in slot 1 (max length = 31): ");
  std::fflush(stdout);
  usleep(200000);
}

const std::map<std::string, void (*)()> deeds{
    {"daemon", leaveDaemon},
    {"litter", leaveLitter},
    {"prompt", imitatePrompt},
    {"leave", [] { _exit(0); }},
    {"close",
     [] {
       for (int i = 0; i < 64; ++i) close(i);
     }},
};

CK_RV getSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
  const char* const deed = std::getenv("HOSTILE");
  if (deed != nullptr) deeds.at(deed)();
  return token->C_GetSlotInfo(slot, info);
}

// Tells everybody.
CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
  std::printf("PIN %.*s\n", static_cast<int>(length), reinterpret_cast<const char*>(pin));
  return token->C_Login(session, user, pin, length);
}

}  // namespace

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  void* const library = dlopen(std::getenv("TOKEN"), RTLD_NOW);
  const auto function = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  const CK_RV result = function(&token);
  own = *token;
  own.C_GetSlotInfo = getSlotInfo;
  own.C_Login = login;
  *list = &own;
  return result;
}
