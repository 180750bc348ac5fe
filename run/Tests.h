// The tests of kestrel, and what kestrel-run has to know of each.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

struct Test {
  std::string_view name;
  bool logsIn = false;
  bool inAll = false;       // else it runs only when it is named
  bool byOperator = false;  // wants the operator's hands, and gets the terminal itself
};

// Those of "all" come first, in its order.
inline constexpr std::array tests{
    Test{.name = "printInfo", .inAll = true},
    Test{.name = "libInfo", .inAll = true},
    Test{.name = "listSlots", .inAll = true},
    Test{.name = "listTokens", .inAll = true},
    Test{.name = "login", .logsIn = true, .inAll = true},
    Test{.name = "signData", .logsIn = true, .inAll = true},
    Test{.name = "decryptData", .logsIn = true, .inAll = true},
    Test{.name = "findObjectsTest", .logsIn = true, .inAll = true},
    Test{.name = "decryptUpdate", .logsIn = true, .inAll = true},
    Test{.name = "signUpdate", .logsIn = true, .inAll = true},
    Test{.name = "negativeTests", .logsIn = true, .inAll = true},
    Test{.name = "displayCertificates", .inAll = true},
    Test{.name = "printOpensslVersion"},
    Test{.name = "changePinTest", .logsIn = true},
    Test{.name = "tokenInfoTest", .logsIn = true, .byOperator = true},
    Test{.name = "dontBlockTest", .byOperator = true},
    Test{.name = "waitTest", .byOperator = true},
};

// Null for an unknown name.
constexpr const Test* findTest(std::string_view name) {
  const auto* test = std::ranges::find(tests, name, &Test::name);
  return test == tests.end() ? nullptr : test;
}
