// The common steps of a service exchange, around the framing of slm.cpp.
#include "agent_core/communication/service_call.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "agent_core/cache/agent.h"
#include "agent_core/cache/srvs.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/trace.h"

namespace slm {

std::string agentText(int32_t id) {
  char value[kAgentTextSize] = "";
  if (getAgentCharValue(id, value, sizeof value) != kAgentValueOk) value[0] = '\0';
  return value;
}

int64_t agentInt(int32_t id) {
  int64_t value = 0;
  if (getAgentIntValue(id, &value) != kAgentValueOk) value = 0;
  return value;
}

std::string int64Text(int64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%" PRId64, value);
  return text;
}

std::string int32Text(int64_t value) {
  char text[16];
  snprintf(text, sizeof text, "%d", static_cast<int32_t>(value));
  return text;
}

int preferredServer(ServerAddress* server) {
  ServerInfo info{};
  if (firstServer(kAnyServer, &info) != kSrvsOk) {
    SLM_TRACE(0, "ERROR - No preferred server info retrieved");
    return kServiceFailed;
  }
  *server = info.address;
  return kServiceOk;
}

HttpHandle* openService(const ServerAddress& server, const char* serviceId,
                        uint16_t timeoutSeconds) {
  HttpHandle* handle = newSlmService(&server, serviceId, timeoutSeconds);
  if (handle == nullptr) {
    SLM_TRACE(0, "ERROR - Error init http request, service: %s", serviceId);
    return nullptr;
  }
  // Only the catalog is large; every other answer is a few lines.
  setAnswerLimit(handle, strcmp(serviceId, kServiceCatalog) == 0
                             ? securitySettings().maxCatalogBytes
                             : kMaxServiceAnswerBytes);
  return handle;
}

HttpHandle* finishRequest(HttpHandle* handle, const char* serviceId, bool sent) {
  if (!sent || endSlmRequest(handle) != kContentSent) {
    SLM_TRACE(0, "ERROR - Error setting content, service %s", serviceId);
    freeHttpHandle(handle);
    return nullptr;
  }
  if (getSlmServiceResponse(handle) != kServiceAnswerUsable) {
    SLM_TRACE(0, "ERROR - Error in response, service %s", serviceId);
    freeHttpHandle(handle);
    return nullptr;
  }
  return handle;
}

HttpHandle* requestService(const ServerAddress& server, const char* serviceId,
                           const std::vector<ServiceField>& fields, uint16_t timeoutSeconds) {
  HttpHandle* handle = openService(server, serviceId, timeoutSeconds);
  if (handle == nullptr) return nullptr;
  bool sent = true;
  for (const ServiceField& field : fields) {
    sent =
        sendSlmContent(handle, field.text.c_str(), &par_sep_tk, field.mask) == kContentSent && sent;
  }
  return finishRequest(handle, serviceId, sent);
}

int abandonService(HttpHandle* handle, int result) {
  freeHttpHandle(handle);
  return result;
}

}  // namespace slm
