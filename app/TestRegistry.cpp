#include "app/TestRegistry.h"

#include <algorithm>
#include <array>

#include "harness/Output.h"

namespace {

template <auto operation>
void run(TestManager& manager) {
  (manager.*operation)();
}

void useEveryCertificate(TestManager& manager) {
  manager.firstCertificateOnly = false;
}

constexpr std::array TestRegistry{
    TestEntry{"-a", useEveryCertificate, false},
    TestEntry{"all", run<&TestManager::runAll>},
    TestEntry{"printInfo", run<&TestManager::printInfo>},
    TestEntry{"libInfo", run<&TestManager::libInfo>},
    TestEntry{"listSlots", run<&TestManager::listSlots>},
    TestEntry{"listTokens", run<&TestManager::listTokens>},
    TestEntry{"login", run<&TestManager::login>},
    TestEntry{"signData", run<&TestManager::signData>},
    TestEntry{"decryptData", run<&TestManager::decryptData>},
    TestEntry{"findObjectsTest", run<&TestManager::findObjectsTest>},
    TestEntry{"decryptUpdate", run<&TestManager::decryptUpdate>},
    TestEntry{"signUpdate", run<&TestManager::signUpdate>},
    TestEntry{"negativeTests", run<&TestManager::negativeTests>},
    TestEntry{"displayCertificates", run<&TestManager::displayCertificates>},
    TestEntry{"printOpensslVersion", run<&TestManager::printOpensslVersion>},
    TestEntry{"dontBlockTest", run<&TestManager::dontBlockTest>},
    TestEntry{"tokenInfoTest", run<&TestManager::tokenInfoTest>},
    TestEntry{"waitTest", run<&TestManager::waitTest>},
    TestEntry{"changePinTest", run<&TestManager::changePinTest>},
};

// What "all" runs, in this order: what needs neither the operator's hands nor a PIN to lose.
constexpr void (*everyTest[])(TestManager&) = {
    run<&TestManager::printInfo>,     run<&TestManager::libInfo>,
    run<&TestManager::listSlots>,     run<&TestManager::listTokens>,
    run<&TestManager::login>,         run<&TestManager::signData>,
    run<&TestManager::decryptData>,   run<&TestManager::findObjectsTest>,
    run<&TestManager::decryptUpdate>, run<&TestManager::signUpdate>,
    run<&TestManager::negativeTests>, run<&TestManager::displayCertificates>,
};

}  // namespace

void TestManager::runAll() {
  report << "Test - run all available test functions..." << std::endl;
  for (const auto test : everyTest) test(*this);
}

const TestEntry* findTest(std::string_view name) {
  const auto* entry = std::ranges::find(TestRegistry, name, &TestEntry::name);
  return entry == TestRegistry.end() ? nullptr : entry;
}
