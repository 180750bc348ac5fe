#include "app/TestRegistry.h"

#include <algorithm>
#include <array>
#include <span>

#include "harness/Output.h"
#include "harness/Tests.h"

namespace kestrel {

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
    TestEntry{"changePinTest", run<&TestManager::changePinTest>},
    TestEntry{"negativeTests", run<&TestManager::negativeTests>},
    TestEntry{"displayCertificates", run<&TestManager::displayCertificates>},
    TestEntry{"printOpensslVersion", run<&TestManager::printOpensslVersion>},
    TestEntry{"dontBlockTest", run<&TestManager::dontBlockTest>},
    TestEntry{"tokenInfoTest", run<&TestManager::tokenInfoTest>},
    TestEntry{"waitTest", run<&TestManager::waitTest>},
};

constexpr std::span testEntries = std::span(TestRegistry).subspan<2>();
static_assert(std::ranges::equal(testEntries, tests, {}, &TestEntry::name, &Test::name),
              "every test of the table has its operation here, in the same order");

}  // namespace

void TestManager::runAll() {
  report << "Test - run all available test functions..." << std::endl;
  for (std::size_t i = 0; i < testEntries.size(); ++i) {
    if (tests[i].is(Test::inAll)) testEntries[i].run(*this);
  }
}

const TestEntry* findEntry(std::string_view name) {
  const auto* entry = std::ranges::find(TestRegistry, name, &TestEntry::name);
  return entry == TestRegistry.end() ? nullptr : entry;
}

}  // namespace kestrel
