// The agent's console messages: catalogue set, number and the text built into the program, which
// is used whenever the catalogue is missing or lacks the message. kvdagt.msg holds the same texts;
// a unit test keeps the two identical.
#pragma once

namespace slm {

struct MessageText {
  int set;
  int number;
  const char* text;
};

constexpr int kConsoleMessageSet = 2;

// Removal run ("-r"): product name; the failure adds the result first.
constexpr MessageText kMsgAgentRemoved{kConsoleMessageSet, 3,
                                       "3503 - %1$s has been successfully removed.\n"};
constexpr MessageText kMsgRemoveFailed{
    kConsoleMessageSet, 4, "3504 - Error %1$d occurred while attempting to remove %2$s.\n"};
// Version, notice and usage ("-v" and the help): product name, version, build date; program name.
constexpr MessageText kMsgVersion{kConsoleMessageSet, 15, "\n %1$s version %2$s - Build %3$s\n\n"};
constexpr MessageText kMsgNotice{
    kConsoleMessageSet, 16,
    "Licensed material. Use is subject to the terms of the licence agreement.\n"};
constexpr MessageText kMsgUsage{kConsoleMessageSet, 17,
                                "Usage: \"%1$s [option]\" where the option may be:\n"
                                "\t-v : Version\n"
                                "\t-p : Plugin\n"
                                "\t-s : Inventory\n"
                                "\t-sp -ps: Inventory and Plugin\n"
                                "\t(none): Run as process\n"};
// On-demand runs ("-p", "-s", "-ps"). These texts carry no line end: the run ends each line.
constexpr MessageText kMsgAgentInitFailed{
    kConsoleMessageSet, 20, "3516 - Error %1$d occurred during the initialization of the agent."};
constexpr MessageText kMsgServerContacted{
    kConsoleMessageSet, 21, "3517 - The agent has successfully contacted the runtime server %1$s."};
constexpr MessageText kMsgServerNotContacted{
    kConsoleMessageSet, 22, "3518 - The agent failed to contact the runtime server %1$s."};
constexpr MessageText kMsgScanning{kConsoleMessageSet, 23, "3519 - Scanning your system ..."};
constexpr MessageText kMsgScanNotCreated{kConsoleMessageSet, 24,
                                         "3520 - Unable to create the inventory scan."};
constexpr MessageText kMsgSendingInventory{
    kConsoleMessageSet, 25, "3521 - Sending the inventory to the runtime server ..."};
constexpr MessageText kMsgInventorySent{kConsoleMessageSet, 26,
                                        "3522 - The inventory scan was completed and sent."};
constexpr MessageText kMsgInventoryNotSent{
    kConsoleMessageSet, 27, "3523 - The inventory scan was completed but could not be sent."};

constexpr MessageText kConsoleMessages[] = {
    kMsgAgentRemoved,    kMsgRemoveFailed,    kMsgVersion,          kMsgNotice,
    kMsgUsage,           kMsgAgentInitFailed, kMsgServerContacted,  kMsgServerNotContacted,
    kMsgScanning,        kMsgScanNotCreated,  kMsgSendingInventory, kMsgInventorySent,
    kMsgInventoryNotSent};

}  // namespace slm
