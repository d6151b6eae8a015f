// The node services: request fields, payload parsing and results of plug-in, parameters, ping,
// topology and new agent.
#include "agent_core/communication/service.h"

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/communication/service_call.h"
#include "agent_core/communication/slm.h"
#include "agent_core/communication/slm_http.h"
#include "agent_core/data/slm_time.h"
#include "agent_core/slm_conf.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/linux/osinfo.h"
#include "agent_core/support/trace.h"

namespace slm {
namespace {

// Payload tokens are read into areas of this size.
constexpr int kTokenSize = 256;
using Token = PayloadToken<kTokenSize>;

HttpHandle* requestNodeService(const ServerAddress& server, const char* serviceId,
                               const std::vector<ServiceField>& fields) {
  return requestService(server, serviceId, fields, kNodeServiceTimeoutSeconds);
}

// Whether a line comes before the trailer, looked at without consuming anything.
bool lineBeforeTrailer(HttpHandle* handle) {
  Token look;
  return look.read(handle, &crlf_tk, &response_tag_tk, kTokenPeek) == kTokenFoundA;
}

// A numeric payload line that reads as 0 must say so with a leading '0'.
bool plausibleNumber(const char* text, int64_t value) {
  return value != 0 || text[0] == '0';
}

// Whether `text` (of `length` characters) is a decimal from 0 to 255 without leading zeros.
bool isAddressPart(const char* text, size_t length) {
  if (length == 0 || length > 3 || (length > 1 && text[0] == '0')) return false;
  int value = 0;
  for (size_t i = 0; i < length; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    value = value * 10 + (text[i] - '0');
  }
  return value <= 255;
}

// The host as a trace shows it: bytes outside printable ASCII become '?', so that a hostile
// answer cannot write lines of its own into the trace.
std::string printableHost(const char* host) {
  std::string shown(host);
  for (char& c : shown) {
    if (c < 0x20 || c > 0x7E) c = '?';
  }
  return shown;
}

// Reads one section of "host|path|port" lines up to `endTag`, appending each server to `servers`.
int readServerSection(HttpHandle* handle, const TokenDesc* endTag, SlmList* servers) {
  for (;;) {
    Token host;
    if (host.read(handle, &fld_sep_tk, endTag) != kTokenFoundA) return kServiceOk;
    Token path;
    if (path.read(handle, &fld_sep_tk, &crlf_tk) != kTokenFoundA) {
      SLM_TRACE(0, "ERROR - No name-path separator found, string %s", path.text());
      return kServiceMalformedPayload;
    }
    Token port;
    if (port.read(handle, &crlf_tk, endTag) != kTokenFoundA) {
      SLM_TRACE(0, "ERROR - No path-port separator found, string %s", port.text());
      return kServiceMalformedPayload;
    }
    int portNumber = atoi(port.text());
    if (portNumber == 0) {
      SLM_TRACE(0, "ERROR - Null server port, string %s", port.text());
      return kServiceMalformedPayload;
    }
    if (!acceptableServerHost(host.text())) {
      SLM_TRACE(0, "ERROR - Server host %s refused: neither a host name nor an IPv4 address",
                printableHost(host.text()).c_str());
      continue;
    }
    ServerAddress server{};
    copyBounded(server.host, kServerHostSize - 1, host.text());
    copyBounded(server.path, kServerPathSize - 1, path.text());
    server.port = static_cast<uint16_t>(portNumber);
    if (append(servers, &server) != kListOk) {
      SLM_TRACE(0, "ERROR - Inserting server %s in list", server.host);
      return kServiceFailed;
    }
  }
}

}  // namespace

bool acceptableServerHost(const char* host) {
  constexpr size_t kHostNameMax = 253;
  constexpr size_t kLabelMax = 63;
  constexpr int kAddressParts = 4;
  const size_t length = strlen(host);
  if (length == 0 || length > kHostNameMax) return false;
  int labels = 0;
  bool addressParts = true;  // every label so far could be a part of an address
  bool lastAllDigits = false;
  const char* label = host;
  for (;;) {
    const char* dot = strchr(label, '.');
    size_t size = dot != nullptr ? static_cast<size_t>(dot - label) : strlen(label);
    if (size == 0 || size > kLabelMax || label[0] == '-' || label[size - 1] == '-') return false;
    lastAllDigits = true;
    for (size_t i = 0; i < size; ++i) {
      // Plain ASCII classes: the process locale must not widen what a name may hold.
      char c = label[i];
      bool digit = c >= '0' && c <= '9';
      bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      if (!digit && !letter && c != '-') return false;
      lastAllDigits = lastAllDigits && digit;
    }
    addressParts = addressParts && isAddressPart(label, size);
    ++labels;
    if (dot == nullptr) break;
    label = dot + 1;
  }
  // A name never ends in a numeric label: that form is an address's, and must be a whole one.
  return !lastAllDigits || (labels == kAddressParts && addressParts);
}

int plugIn(const ServerAddress* server) {
  SLM_TRACE(2, "SRVCS - Plugging in on server: %s", server->host);
  AgentTime now = getNowWithOffset(0);
  std::string tag = agentText(kAgentTag).substr(0, kPlugInTagMax);
  std::vector<ServiceField> fields = {
      {kAgentVersion, kNoMask},
      {int64Text(agentInt(kAgentId)), kNoMask},
      {agentText(kAgentHostName), kMask},
      {agentText(kAgentIpAddress), kNoMask},
      {agentText(kAgentOsFamily), kMask},
      {agentText(kAgentOsDescription), kMask},
      {int32Text(agentInt(kAgentMemoryMiB)), kNoMask},
      {int32Text(agentInt(kAgentDiskCount)), kNoMask},
      {int32Text(agentInt(kAgentReserved)), kNoMask},
      {int32Text(agentInt(kAgentCpuCount)), kNoMask},
      {int32Text(agentInt(kAgentCpuCountCopy)), kNoMask},
      {int64Text(agentInt(kAgentDivisionId)), kNoMask},
      {int64Text(agentInt(kAgentNodeId)), kNoMask},
      // Milliseconds shown as zeros, as in the request's own time line.
      {int32Text(now) + (now != 0 ? "000" : ""), kNoMask},
      {tag, kMask},
  };
  HttpHandle* handle = requestNodeService(*server, kServicePlugin, fields);
  if (handle == nullptr) return kServiceFailed;

  // The answer must carry a node line. Without one this read takes the trailer's tag, and the
  // trailer then fails to decode: a plug-in answer lacking its node line is a failed plug-in.
  Token node;
  if (node.read(handle, &crlf_tk, &response_tag_tk) == kTokenFoundA &&
      isdigit(static_cast<unsigned char>(node.text()[0]))) {
    int64_t nodeId = aToSlmInt64(node.text());
    if (!plausibleNumber(node.text(), nodeId)) {
      SLM_TRACE(0, "ERROR - Bad node_id during conversion: %s", node.text());
      return abandonService(handle, kServiceMalformedPayload);
    }
    (void)setAgentIntValue(kAgentNodeId, nodeId);
  }
  return endSlmService(handle);
}

int downloadParameters(int32_t* parameters) {
  ServerAddress server;
  if (preferredServer(&server) != kServiceOk) return kServiceFailed;
  SLM_TRACE(2, "SRVCS - Parameters from server: %s", server.host);
  std::vector<ServiceField> fields = {
      {int64Text(agentInt(kAgentId)), kNoMask},
      {int64Text(agentInt(kAgentDivisionId)), kNoMask},
  };
  HttpHandle* handle = requestNodeService(server, kServiceParameters, fields);
  if (handle == nullptr) return kServiceFailed;
  if (!lineBeforeTrailer(handle)) return endSlmService(handle);

  // Seventeen lines fill eighteen words: the third line is one 64-bit value over two words.
  constexpr int kParameterLines = 17;
  int word = 0;
  for (int line = 1; line <= kParameterLines; ++line) {
    Token value;
    if (value.read(handle, &crlf_tk, &response_tag_tk) != kTokenFoundA) {
      return abandonService(handle, kServiceFailed);
    }
    if (word == kParameterUpdateEnableWord) {
      if (strcasecmp(value.text(), "yes") == 0) {
        parameters[word++] = 1;
      } else if (strcasecmp(value.text(), "no") == 0) {
        parameters[word++] = 0;
      } else {
        SLM_TRACE(0, "ERROR - Bad update enable string '%s'", value.text());
        return abandonService(handle, kServiceMalformedPayload);
      }
      continue;
    }
    int64_t number = line <= 2 ? atoi(value.text()) : aToSlmInt64(value.text());
    if (line == 3) {
      uint64_t bits = static_cast<uint64_t>(number);
      parameters[word++] = static_cast<int32_t>(static_cast<uint32_t>(bits));
      parameters[word++] = static_cast<int32_t>(static_cast<uint32_t>(bits >> 32));
    } else {
      parameters[word++] = static_cast<int32_t>(number);
    }
    if (!plausibleNumber(value.text(), number)) {
      SLM_TRACE(0, "ERROR - Bad number in content: %s, number %d", value.text(),
                static_cast<int32_t>(number));
      return abandonService(handle, kServiceMalformedPayload);
    }
  }
  return endSlmService(handle);
}

int pingRTServer(const ServerAddress* server) {
  SLM_TRACE(2, "SRVCS - Pinging server : %s", server->host);
  HttpHandle* handle = requestNodeService(*server, kServicePing, {});
  if (handle == nullptr) return kPingFailed;
  // The trailer of a ping is not looked at: any usable answer means the server is there.
  freeHttpHandle(handle);
  return kPingAnswered;
}

int downloadTopology(SlmList* division, SlmList* enterprise) {
  ServerAddress server;
  if (preferredServer(&server) != kServiceOk) return kServiceFailed;
  SLM_TRACE(2, "SRVCS - Topology from server: %s", server.host);
  std::vector<ServiceField> fields = {
      {int64Text(agentInt(kAgentId)), kNoMask},
      {int64Text(agentInt(kAgentDivisionId)), kNoMask},
  };
  HttpHandle* handle = requestNodeService(server, kServiceTopology, fields);
  if (handle == nullptr) return kServiceFailed;

  Token begin;
  if (begin.read(handle, &begin_div_tk, &response_tag_tk) != kTokenFoundA) {
    SLM_TRACE(0, "ERROR - Not begin divion servers found, string %s", begin.text());
    return abandonService(handle, kServiceFailed);
  }
  int result = readServerSection(handle, &end_div_tk, division);
  if (result != kServiceOk) return abandonService(handle, result);
  if (begin.read(handle, &begin_ent_tk, &response_tag_tk) != kTokenFoundA) {
    // The message ends in a bare percent sign; logs are matched on it as it stands.
    SLM_TRACE(0, "ERROR - Not enterprise begin found, string %%");
    return abandonService(handle, kServiceFailed);
  }
  result = readServerSection(handle, &end_ent_tk, enterprise);
  if (result != kServiceOk) return abandonService(handle, result);
  return endSlmService(handle);
}

int downloadNewAgent(char* command, size_t commandSize, SlmList* files) {
  ServerAddress server;
  if (preferredServer(&server) != kServiceOk) return kServiceFailed;
  SLM_TRACE(2, "SRVCS - Agent from server: %s", server.host);
  char machine[kAgentTextSize] = "";
  char systemName[kAgentTextSize] = "";
  char release[kAgentTextSize] = "";
  if (getSystemEnvironment(machine, systemName, release, kAgentTextSize) != kOsInfoSuccess) {
    SLM_TRACE(0, "ERROR - No system environment variables retrieved");
    return kServiceFailed;
  }
  std::vector<ServiceField> fields = {
      {int64Text(agentInt(kAgentId)), kNoMask},
      {kAgentVersion, kNoMask},
      {systemName, kMask},
      {release, kMask},
      {machine, kMask},
      {int64Text(agentInt(kAgentDivisionId)), kNoMask},
      {agentText(kAgentTag), kNoMask},
      {server.host, kNoMask},
      {int32Text(server.port), kNoMask},
      {"/", kNoMask},
      {agentText(kAgentCustomer), kNoMask},
      {command, kNoMask},
  };
  HttpHandle* handle = requestNodeService(server, kServiceNewAgent, fields);
  if (handle == nullptr) return kServiceFailed;

  if (!lineBeforeTrailer(handle)) {
    SLM_TRACE(2, "SRVCS - No Update Agent data");
    return endSlmService(handle);
  }
  Token line;
  if (line.read(handle, &crlf_tk, &response_tag_tk) != kTokenFoundA) {
    SLM_TRACE(0, "ERROR - Update Agent: no command found");
    return abandonService(handle, kServiceFailed);
  }
  memset(command, 0, commandSize);
  copyBounded(command, commandSize - 1, line.text());

  while (lineBeforeTrailer(handle)) {
    if (line.read(handle, &crlf_tk, &response_tag_tk) != kTokenFoundA) {
      return abandonService(handle, kServiceFailed);
    }
    ServerAddress file = server;
    copyBounded(file.path, kServerPathSize - 1, line.text());
    if (append(files, &file) != kListOk) {
      SLM_TRACE(0, "ERROR - Inserting server %s in list", file.host);
      return abandonService(handle, kServiceMalformedPayload);
    }
  }
  if (entries(files) == 0) {
    SLM_TRACE(0, "ERROR - No download files found in list");
    return abandonService(handle, kServiceMalformedPayload);
  }
  return endSlmService(handle);
}

}  // namespace slm
