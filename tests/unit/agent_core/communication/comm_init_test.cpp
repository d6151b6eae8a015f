// Who the agent says it is: the address and plug-in name from a resolved host entry, and, where
// the host name gives no usable address, the address the real kernel gives towards the server.
#include "agent_core/communication/comm_init.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/communication/slm.h"
#include "support/service_sandbox.h"

namespace slm {
namespace {

// This machine's IPv4 addresses outside 127.0.0.0/8, on interfaces that are up.
std::vector<std::string> machineAddresses() {
  std::vector<std::string> found;
  ifaddrs* interfaces = nullptr;
  if (getifaddrs(&interfaces) != 0) return found;
  for (const ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET ||
        (i->ifa_flags & IFF_UP) == 0) {
      continue;
    }
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr, text,
              sizeof text);
    if (strncmp(text, "127.", 4) != 0) found.push_back(text);
  }
  freeifaddrs(interfaces);
  return found;
}

class CommInit : public test::ServiceSandbox {
 protected:
  std::string value(int id) {
    char text[kAgentTextSize] = "";
    EXPECT_EQ(getAgentCharValue(id, text, sizeof text), kAgentValueOk);
    return text;
  }
};

TEST_F(CommInit, ChoosesAddressAndPlugInName) {
  const struct {
    const char* name;
    std::vector<const char*> aliases, addresses;  // the aliases end in nullptr
    const char *ip, *plugInName, *message;
  } cases[] = {
      {"box.lan", {nullptr}, {"127.0.0.2", "10.0.0.5"}, "10.0.0.5", "box.lan", "Use box.lan name"},
      {"", {"", "alias1", nullptr}, {"127.0.1.1"}, "127.0.1.1", "alias1", "Use alias1 alias to"},
      {"", {nullptr}, {"127.0.0.2", "127.0.1.1"}, "127.0.1.1", "me", "gethostname value me"},
      {"", {nullptr}, {}, "127.0.0.1", "me", "No address found use a dummy name 127.0.0.1"},
      {"", {"", nullptr}, {"127.0.0.3", "10.1.2.3", "10.0.0.9"}, "10.1.2.3", "10.1.2.3", "3 ip"},
  };
  for (const auto& c : cases) {
    std::vector<in_addr> addresses(c.addresses.size());
    std::vector<char*> addressList(addresses.size() + 1);  // ends in nullptr
    for (size_t i = 0; i < addresses.size(); ++i) {
      inet_aton(c.addresses[i], &addresses[i]);
      addressList[i] = reinterpret_cast<char*>(&addresses[i]);
    }
    hostent entry{const_cast<char*>(c.name), const_cast<char**>(c.aliases.data()), AF_INET,
                  sizeof(in_addr), addressList.data()};
    PlugInIdentity identity{};
    choosePlugInIdentity(entry, "me", &identity);
    EXPECT_STREQ(identity.ipAddress, c.ip);
    EXPECT_STREQ(identity.name, c.plugInName);
    EXPECT_TRUE(traced(c.message)) << trace();
  }
}

TEST(LocalAddress, PrefersTheRouteToTheServerOverAnInterfaceAndLoopbackLast) {
  const struct {
    const char *towardsServer, *firstInterface, *chosen;
  } cases[] = {
      {"10.0.0.7", "192.168.1.4", "10.0.0.7"},
      {"127.0.0.1", "192.168.1.4", "192.168.1.4"},  // the server runs on this machine
      {"", "192.168.1.4", "192.168.1.4"},           // no route, or the server does not resolve
      {"127.0.0.1", "", "127.0.0.1"},               // loopback is all the machine has
      {"", "", nullptr},
  };
  for (const auto& c : cases) {
    LocalAddresses local{};
    strcpy(local.towardsServer, c.towardsServer);
    strcpy(local.firstInterface, c.firstInterface);
    const char* chosen = chooseLocalAddress(local);
    EXPECT_STREQ(chosen, c.chosen) << c.towardsServer << " " << c.firstInterface;
  }
}

TEST_F(CommInit, ReportsTheKernelsAddressWhenTheHostNameGivesNoneButLoopback) {
  const std::vector<std::string> machine = machineAddresses();
  if (machine.empty()) GTEST_SKIP() << "this machine has no address outside 127.0.0.0/8";
  const std::string own = machine.front();
  const struct {
    const char* hostName;  // a blank keeps the resolver from asking any name server
    std::string server, name, message;
  } cases[] = {
      // A dotted name resolves without asking any name server, and is used as it is.
      {"10.0.0.5", own, "10.0.0.5", ""},
      {"no such host", own, "no such host",
       "WARNING - Couldn't resolve host name no such host: reporting " + own +
           ", the address towards server " + own},
      {"localhost", own, "localhost",
       "WARNING - Host name localhost resolves only to loopback address 127.0.0.1: reporting " +
           own + ", the address towards server " + own},
      // A server on this machine is reached over loopback: an interface's address is reported.
      {"no such host", "127.0.0.1", "no such host", ", the address of interface "},
      {"no such host", "", "no such host", ", the address of interface "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.hostName) + " / " + c.server);
    loadConfiguration((c.server.empty() ? "" : "server=" + c.server + "\n") + "port=8080\n");
    ASSERT_EQ(setAgentCharValue(kAgentHostName, c.hostName), kAgentValueOk);
    restartTrace();
    ASSERT_EQ(initCommunication(), kCommOk);
    const std::string ip = value(kAgentIpAddress);
    if (c.hostName == std::string("10.0.0.5")) {
      EXPECT_EQ(ip, "10.0.0.5");
      EXPECT_FALSE(traced("WARNING")) << trace();
    } else if (c.server == own) {
      EXPECT_EQ(ip, own);
    } else {
      EXPECT_NE(std::find(machine.begin(), machine.end(), ip), machine.end()) << ip;
    }
    EXPECT_EQ(value(kAgentHostName), c.name);
    EXPECT_TRUE(traced(c.message)) << trace();
    EXPECT_EQ(default_time_out, kDefaultServiceTimeoutSeconds);
  }
  EXPECT_EQ(closeCommunication(), kCommOk);
  EXPECT_TRUE(traced("OK - Close Communication"));
}

}  // namespace
}  // namespace slm
