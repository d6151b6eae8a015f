// Entry point: command-line options, the directory check every use starts with, and the choice
// between the daemon, the version and help texts, the removal run and the on-demand runs.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "agent_core/invthr.h"
#include "agent_core/message/format_msg.h"
#include "agent_core/message/messages.h"
#include "agent_core/message/nls.h"
#include "agent_core/support/bytes.h"
#include "agent_core/support/trace.h"
#include "service/service.h"
#include "service/unix/base_dir.h"
#include "service/unix/sys_service.h"
#include "signing_key.h"

namespace slm {
namespace {

constexpr const char* kProductName = "Orvane Agent";
constexpr size_t kProgramNameChars = 255;
// Said by "-v" and at the start of every trace of a binary built with the development key: whoever
// has the repository has that key's private half.
constexpr const char* kDevelopmentKeyWarning =
    "WARNING - Built with the development signing key: any holder of the repository can sign "
    "updates";

// The trace level of the on-demand runs.
constexpr int32_t kOnDemandTraceLevel = 3;

char programName[kProgramNameChars + 1];
MessageCatalogue* user_msg_cat = nullptr;

// The version line, the development key's warning when the build has that key, then the notice:
// as it stands for "-v", through the formatter in the help.
void printVersion(MessageCatalogue* catalogue, bool formatNotice) {
  printMessage(stdout, catalogue, kMsgVersion, kProductName, SLM_VERSION, SLM_BUILD_DATE);
  if (kSigningKeyIsDevelopment) printf("%s\n\n", kDevelopmentKeyWarning);
  if (formatNotice) {
    printMessage(stdout, catalogue, kMsgNotice);
  } else {
    fputs(getMessageText(catalogue, kMsgNotice), stdout);
  }
}

void printHelp(const char* name, MessageCatalogue* catalogue) {
  printVersion(catalogue, true);
  printMessage(stdout, catalogue, kMsgUsage, name);
}

// The mode comes from the argument's shape: any length but 2 means both runs.
int onDemandMode(const char* argument) {
  if (strlen(argument) != 2) return kOnDemandPlugIn | kOnDemandInventory;
  return argument[1] == 'p' ? kOnDemandPlugIn : kOnDemandInventory;
}

const char* onDemandTraceName(int mode) {
  switch (mode) {
    case kOnDemandPlugIn:
      return "plugin.log";
    case kOnDemandInventory:
      return "inventory.log";
    default:
      return "plugscan.log";
  }
}

int runOnDemand(const char* argument) {
  if (getBaseDir() != 0 || buildDirs() == 1) return kExitFailure;
  buildFilePath(conf_file, confDir, kConfFileName);
  int mode = onDemandMode(argument);
  buildFilePath(log_file, logDir, onDemandTraceName(mode));
  int result =
      slmAgentInventoryOnDemand(mode, log_file, kOnDemandTraceLevel, conf_file, user_msg_cat);
  return result == kOnDemandOk ? kExitOk : kExitFailure;
}

int runOption(const char* argument) {
  if (strcmp(argument, "-v") == 0) {
    printVersion(user_msg_cat, false);
    return kExitOk;
  }
  if (strcmp(argument, "-r") == 0) {
    int result = serviceRemove();
    if (result == 0) {
      printMessage(stdout, user_msg_cat, kMsgAgentRemoved, kProductName);
      return kExitOk;
    }
    printMessage(stdout, user_msg_cat, kMsgRemoveFailed, result, kProductName);
    return kExitFailure;
  }
  if (strcmp(argument, "-p") == 0 || strcmp(argument, "-s") == 0 || strcmp(argument, "-ps") == 0 ||
      strcmp(argument, "-sp") == 0) {
    return runOnDemand(argument);
  }
  printHelp(programName, user_msg_cat);
  return kExitOk;
}

int agentMain(int argc, char** argv) {
  if (kSigningKeyIsDevelopment) setTraceStartNotice(kDevelopmentKeyWarning);
  getBaseDir();
  int dirs = buildDirs();
  if (dirs != 0) {
    printf("ERROR DIRS\n");
    return dirs;
  }
  slmLocalizationInit();
  copyBounded(programName, kProgramNameChars, argc > 0 ? argv[0] : "");

  if (argc != 2) {
    int status = serviceMain();
    slmLocalizationFree();
    return status;
  }
  user_msg_cat = openMessageCatalogue(kMessageCatalogueName);
  int status = runOption(argv[1]);
  closeMessageCatalogue(user_msg_cat);
  user_msg_cat = nullptr;
  slmLocalizationFree();
  return status;
}

}  // namespace
}  // namespace slm

int main(int argc, char** argv) {
  return slm::agentMain(argc, argv);
}
