#include "app/TestRegistry.h"

#include <algorithm>
#include <array>

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
    TestEntry{"libInfo", run<&TestManager::libInfo>},
    TestEntry{"listSlots", run<&TestManager::listSlots>},
    TestEntry{"listTokens", run<&TestManager::listTokens>},
    TestEntry{"login", run<&TestManager::login>},
    TestEntry{"signData", run<&TestManager::signData>},
    TestEntry{"decryptData", run<&TestManager::decryptData>},
    TestEntry{"findObjectsTest", run<&TestManager::findObjectsTest>},
    TestEntry{"decryptUpdate", run<&TestManager::decryptUpdate>},
    TestEntry{"signUpdate", run<&TestManager::signUpdate>},
    TestEntry{"printOpensslVersion", run<&TestManager::printOpensslVersion>},
};

}  // namespace

const TestEntry* findTest(std::string_view name) {
  const auto* entry = std::ranges::find(TestRegistry, name, &TestEntry::name);
  return entry == TestRegistry.end() ? nullptr : entry;
}

std::span<const TestEntry> allTests() {
  return TestRegistry;
}
