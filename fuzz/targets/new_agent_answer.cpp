// The new agent answer (downloadNewAgent): none, or the update command line and the paths of the
// files to download, then the result trailer.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "agent_core/cmdfuncs.h"
#include "agent_core/communication/service.h"
#include "agent_core/communication/slm.h"
#include "support/fuzz_root.h"
#include "support/service_peer.h"

using namespace slm;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ServicePeer& peer = fuzz::ServicePeer::instance();
  const ServerAddress server = peer.address();
  char command[kNewAgentCommandSize] = "/tmp/qsam";
  SlmList* files = createList(sizeof(ServerAddress));
  peer.answerWith(data, size);
  const int result = downloadNewAgent(command, sizeof command, files);
  FUZZ_CHECK(peer.finish() == 1);
  FUZZ_CHECK(fuzz::isServiceResult(result));
  FUZZ_CHECK(strnlen(command, sizeof command) < sizeof command);
  // Success without files only for an answer without update data: the command is then untouched.
  if (result == kServiceOk && entries(files) == 0) FUZZ_CHECK(strcmp(command, "/tmp/qsam") == 0);
  for (void* item = getNext(files, nullptr); item != nullptr; item = getNext(files, item)) {
    const auto* file = static_cast<const ServerAddress*>(item);
    // Every file comes from the server that answered.
    FUZZ_CHECK(strcmp(file->host, server.host) == 0 && file->port == server.port);
    FUZZ_CHECK(strnlen(file->path, kServerPathSize) < kServerPathSize);
  }
  deleteList(files);
  return 0;
}
