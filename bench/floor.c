/* What kestrel is measured against: the same calls into the same module and no more. The module is
 * ./libnorvalepk11.so. A PIN is taken as the second argument.
 *   floor libInfo | listTokens | signUpdate PIN | waitTest */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static CK_FUNCTION_LIST* p11;
static CK_SLOT_ID slots[64];
static CK_ULONG slotCount;

static void check(CK_RV result) {
  if (result != CKR_OK) {
    fprintf(stderr, "floor: 0x%lx\n", result);
    exit(1);
  }
}

static void listSlots(void) {
  check(p11->C_GetSlotList(CK_FALSE, NULL, &slotCount));
  check(p11->C_GetSlotList(CK_FALSE, slots, &slotCount));
}

static void listTokens(void) {
  CK_SLOT_INFO slot;
  CK_TOKEN_INFO token;
  listSlots();
  for (CK_ULONG i = 0; i < slotCount; ++i) {
    check(p11->C_GetSlotInfo(slots[i], &slot));
    printf("%.64s\n", (char*)slot.slotDescription);
    check(p11->C_GetTokenInfo(slots[i], &token));
    printf("%.32s\n%.32s\n", (char*)token.label, (char*)token.manufacturerID);
  }
}

static CK_OBJECT_HANDLE find(CK_SESSION_HANDLE session, CK_ATTRIBUTE* attributes, CK_ULONG count) {
  CK_OBJECT_HANDLE object = 0;
  CK_ULONG found;
  check(p11->C_FindObjectsInit(session, attributes, count));
  check(p11->C_FindObjects(session, &object, 1, &found));
  /* Private keys are all looked for. */
  if (count == 1) check(p11->C_FindObjects(session, &(CK_OBJECT_HANDLE){0}, 1, &found));
  check(p11->C_FindObjectsFinal(session));
  return object;
}

static CK_ULONG fetch(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE* attributes,
                      CK_ULONG count, CK_ULONG wanted, CK_BYTE* value) {
  check(p11->C_GetAttributeValue(session, object, attributes, count));
  attributes[wanted].pValue = value;
  check(p11->C_GetAttributeValue(session, object, attributes, count));
  return attributes[wanted].ulValueLen;
}

/* The first token's only key, with its public key and certificate. */
static CK_OBJECT_HANDLE discover(CK_SESSION_HANDLE session) {
  CK_OBJECT_CLASS type = CKO_PRIVATE_KEY;
  CK_BYTE id[64], value[4096];
  CK_ATTRIBUTE private = {CKA_CLASS, &type, sizeof type}, own = {CKA_ID, NULL, 0};
  CK_OBJECT_HANDLE key = find(session, &private, 1);
  CK_ULONG length = fetch(session, key, &own, 1, 0, id);
  CK_ATTRIBUTE same[] = {{CKA_ID, id, length}, {CKA_CLASS, &type, sizeof type}};
  CK_ATTRIBUTE read[] = {{CKA_ID, NULL, 0}, {CKA_VALUE, NULL, 0}, {CKA_LABEL, NULL, 0}};
  type = CKO_PUBLIC_KEY;
  find(session, same, 2);
  type = CKO_CERTIFICATE;
  fetch(session, find(session, same, 2), read, 3, 1, value);
  return key;
}

/* Each listed mechanism with the first slot's key, in three parts. */
static void signUpdate(const char* pin) {
  CK_SLOT_INFO slot;
  CK_SESSION_HANDLE session;
  CK_MECHANISM_TYPE types[100];
  CK_ULONG count = 100, length;
  CK_BYTE signature[512];
  listSlots();
  check(p11->C_GetSlotInfo(slots[0], &slot));
  check(p11->C_OpenSession(slots[0], CKF_SERIAL_SESSION, NULL, NULL, &session));
  check(p11->C_Login(session, CKU_USER, (CK_UTF8CHAR*)pin, strlen(pin)));
  check(p11->C_GetMechanismList(slots[0], types, &count));
  const CK_OBJECT_HANDLE key = discover(session);
  for (CK_ULONG i = 0; i < count; ++i) {
    CK_MECHANISM mechanism = {types[i], NULL, 0};
    check(p11->C_SignInit(session, &mechanism, key));
    for (int part = 0; part < 3; ++part) {
      check(p11->C_SignUpdate(session, (CK_BYTE*)"ten bytes.", 10));
    }
    check(p11->C_SignFinal(session, NULL, &length));
    check(p11->C_SignFinal(session, signature, &length));
  }
  check(p11->C_Logout(session));
  check(p11->C_CloseSession(session));
}

static void waitTest(void) {
  CK_SLOT_INFO slot;
  listSlots();
  for (unsigned passes = 1;; ++passes) {
    for (CK_ULONG i = 0; i < slotCount; ++i) check(p11->C_GetSlotInfo(slots[i], &slot));
    printf("C_GetSlotInfo : %u\n", passes);
  }
}

int main(int argc, char** argv) {
  const char* test = argc > 1 ? argv[1] : "";
  void* module = dlopen("./libnorvalepk11.so", RTLD_LAZY);
  if (module == NULL) return 1;
  check(((CK_C_GetFunctionList)dlsym(module, "C_GetFunctionList"))(&p11));
  check(p11->C_Initialize(NULL));
  if (strcmp(test, "libInfo") == 0) {
    CK_INFO info;
    check(p11->C_GetInfo(&info));
    printf("%.32s\n", (char*)info.libraryDescription);
  }
  if (strcmp(test, "listTokens") == 0) listTokens();
  if (strcmp(test, "signUpdate") == 0) signUpdate(argv[2]);
  if (strcmp(test, "waitTest") == 0) waitTest();
  check(p11->C_Finalize(NULL));
  dlclose(module);
  return 0;
}
