// Start-up and shut-down of the communication layer: the address and the name the agent reports
// to its servers, taken from the resolver (or, where the host name gives no usable address, from
// the kernel's routes and interfaces), and the service layer's proxy and time-out. Runs once on
// the start-up thread, before any service.
#pragma once

#include <net/if.h>
#include <netdb.h>

#include <cstddef>
#include <cstdint>

#include "agent_core/cache/agent.h"

namespace slm {

// Read time-out of services opened without one of their own.
constexpr int kDefaultServiceTimeoutSeconds = 150;
// The agent's host name is looked up with at most this many characters.
constexpr size_t kResolvedHostNameMax = 127;

// What the agent reports about itself: its address and the name it plugs in with.
struct PlugInIdentity {
  char ipAddress[kAgentIpSize];
  char name[kAgentTextSize];
};

// Chooses the identity from a resolved host entry of `hostName`: the first address outside
// 127.0.0.0/8 (else the last loopback one, else "127.0.0.1"), and the canonical name, else the
// first non-empty alias, else that non-loopback address, else `hostName` itself.
void choosePlugInIdentity(const hostent& entry, const char* hostName, PlugInIdentity* identity);

// What the kernel says about this machine's own IPv4 addresses, read when the host name does not
// resolve or resolves only to loopback addresses (a container's or a cloud machine's name, or the
// 127.0.1.1 that Debian maps its host name to).
struct LocalAddresses {
  // The source address of a route to the preferred server; "" when the server does not resolve
  // or no route leads there.
  char towardsServer[kAgentIpSize];
  // The first address outside 127.0.0.0/8 of an interface that is up and not a loopback one, and
  // that interface's name; "" when there is none.
  char firstInterface[kAgentIpSize];
  char interfaceName[IF_NAMESIZE];
};

// Reads `local` from the kernel: a UDP socket connected to `serverHost` port `port` (connecting
// one sends nothing; it only picks the route) and the interface list.
void readLocalAddresses(const char* serverHost, uint16_t port, LocalAddresses* local);

// The address to report from `local`: the one towards the server when it is outside 127.0.0.0/8,
// else the interface's, else the one towards the server (a server on this very machine, which has
// no other address). Null when `local` holds none.
const char* chooseLocalAddress(const LocalAddresses& local);

constexpr int kCommOk = 0;
constexpr int kCommFailed = 1;

// Resolves the agent's host name (agent value 3), stores the chosen address as value 18 and the
// plug-in name as value 3, and sets up the service layer with the agent's proxy, if it uses one.
// When the name does not resolve, or gives only loopback addresses, the address comes from
// readLocalAddresses towards the configured server (with a WARNING naming it); an unresolved name
// is then the plug-in name. kCommFailed when the name does not resolve and the kernel gives no
// address either.
[[nodiscard]] int initCommunication();
int closeCommunication();

}  // namespace slm
