// Who may use a key and see it: after a logout, without a login, in another process, with another
// mechanism.
#include "probe/Keys.h"
#include "probe/secrets/Secrets.h"

namespace kestrel::probe {

namespace {

constexpr View marker = "kestrel-probe's private key";

CK_OBJECT_HANDLE privateKey(Bench& bench) {
  return makeSecret(bench, true, false, [](Template& attributes) {
    attributes.add(CKA_PRIVATE, true).add(CKA_LABEL, marker);
  });
}

std::size_t visible(Bench& bench) {
  Template wanted(bench.memory);
  wanted.add(CKA_LABEL, marker);
  return findObjects(bench.session, wanted, 10).size();
}

CK_RV sizeOf(Bench& bench, CK_OBJECT_HANDLE key) {
  auto* const wanted = bench.memory.out(CK_ATTRIBUTE{CKA_LABEL, bench.memory.bytes(100), 100});
  return p11::C_GetAttributeValue(bench.session, key, wanted, 1);
}

CK_OBJECT_HANDLE loggedOut(Bench& bench) {
  if (!bench.token.wantsLogin()) bench.notApplicable("the token wants no login");
  const CK_OBJECT_HANDLE key = privateKey(bench);
  if (visible(bench) != 1) bench.notApplicable("the key is not found while the user is there");
  bench.control(p11::C_Logout(bench.session));
  return key;
}

void handleAfterLogout(Bench& bench) {
  const CK_OBJECT_HANDLE key = loggedOut(bench);
  bench.refused(sizeOf(bench, key), bench.check.expected, "a private key is seen after the logout");
}

void findAfterLogout(Bench& bench) {
  loggedOut(bench);
  bench.expect(p11::C_FindObjectsInit(bench.session, nullptr, 0));
  bench.control(p11::C_FindObjectsFinal(bench.session));
  bench.require(visible(bench) == 0, "a private key is found after the logout");
}

void useAfterLogout(Bench& bench) {
  const CK_OBJECT_HANDLE key = loggedOut(bench);
  const Kit kit = operation(bench, Kind::encrypt, CKM_AES_ECB, {}, key);
  bench.refused(kit.begin(bench.session), bench.check.expected,
                "a private key is used after the logout");
}

void oldHandle(Bench& bench) {
  const CK_OBJECT_HANDLE key = loggedOut(bench);
  bench.control(bench.logIn(bench.session));
  bench.refused(sizeOf(bench, key), bench.check.expected,
                "a handle of before the logout is good after another login");
}

void createWithoutLogin(Bench& bench) {
  if (!bench.token.wantsLogin()) bench.notApplicable("the token wants no login");
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_DATA})
      .add(CKA_TOKEN, false)
      .add(CKA_VALUE, View("a secret"))
      .add(CKA_PRIVATE, true);
  const CK_RV result = p11::C_CreateObject(bench.session, attributes.in(), attributes.count(),
                                           bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE));
  bench.expect(result);
}

void anotherMechanism(Bench& bench) {
  const CK_MECHANISM_TYPE permitted = CKM_AES_CBC;
  const CK_OBJECT_HANDLE key = makeSecret(bench, true, false, [&](Template& attributes) {
    attributes.add(CKA_ALLOWED_MECHANISMS, viewOf(permitted));
  });
  const Kit good = operation(bench, Kind::encrypt, CKM_AES_CBC, "0123456789abcdef", key);
  bench.control(good.begin(bench.openSession()));
  const Kit kit = operation(bench, Kind::encrypt, CKM_AES_ECB, {}, key);
  bench.refused(kit.begin(bench.session), bench.check.expected,
                "the key is used with a mechanism that it does not allow");
}

void seenElsewhere(Bench& bench) {
  makeSecret(bench, false, true, [](Template& attributes) {
    attributes.add(CKA_PRIVATE, false).add(CKA_LABEL, marker);
  });
  if (visible(bench) == 0) bench.notApplicable("the key is not found in its own process");
  bench.elsewhere();
  bench.expect(CKR_OK);
}

constexpr Expected gone{CKR_OBJECT_HANDLE_INVALID, CKR_KEY_HANDLE_INVALID, CKR_USER_NOT_LOGGED_IN};

}  // namespace

void addUseAttacks(Plan& plan) {
  addAttack(plan, "after-logout/handle", FunctionId::C_GetAttributeValue, gone, handleAfterLogout)
      .spoils = true;
  addAttack(plan, "after-logout/find", FunctionId::C_FindObjectsInit, {CKR_OK}, findAfterLogout)
      .spoils = true;
  addAttack(plan, "after-logout/use", FunctionId::C_EncryptInit,
            {CKR_KEY_HANDLE_INVALID, CKR_OBJECT_HANDLE_INVALID, CKR_USER_NOT_LOGGED_IN},
            useAfterLogout)
      .spoils = true;
  addAttack(plan, "after-logout/old-handle", FunctionId::C_GetAttributeValue,
            {CKR_OBJECT_HANDLE_INVALID}, oldHandle)
      .spoils = true;
  addAttack(plan, "without-login/create-private", FunctionId::C_CreateObject,
            {CKR_USER_NOT_LOGGED_IN}, createWithoutLogin)
      .stage = Stage::session;
  addAttack(plan, "mechanism-not-allowed", FunctionId::C_EncryptInit,
            {CKR_MECHANISM_INVALID, CKR_KEY_FUNCTION_NOT_PERMITTED}, anotherMechanism);
  addAttack(plan, "in-another-process", FunctionId::C_FindObjectsInit, {CKR_OK}, seenElsewhere)
      .elsewhere = [](Bench& bench) {
    bench.require(visible(bench) == 0, "a session object of another process is found");
  };
}

}  // namespace kestrel::probe
