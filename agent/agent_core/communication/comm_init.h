// Start-up and shut-down of the communication layer: the address and the name the agent reports
// to its servers, taken from the resolver, and the service layer's proxy and time-out. Runs once
// on the start-up thread, before any service.
#pragma once

#include <netdb.h>

#include <cstddef>

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

constexpr int kCommOk = 0;
constexpr int kCommFailed = 1;

// Resolves the agent's host name (agent value 3), stores the chosen address as value 18 and the
// plug-in name as value 3, and sets up the service layer with the agent's proxy, if it uses one.
// kCommFailed when the name does not resolve.
[[nodiscard]] int initCommunication();
int closeCommunication();

}  // namespace slm
