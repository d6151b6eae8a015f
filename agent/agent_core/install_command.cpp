// Splitting and checking an installation command line.
#include "agent_core/install_command.h"

#include <cstring>

namespace slm {

bool isPlainWord(const char* word) {
  if (*word == '\0') return false;
  for (const char* c = word; *c != '\0'; ++c) {
    const bool plain = (*c >= 'A' && *c <= 'Z') || (*c >= 'a' && *c <= 'z') ||
                       (*c >= '0' && *c <= '9') || strchr("._,=/:+-", *c) != nullptr;
    if (!plain) return false;
  }
  return true;
}

int splitInstallCommand(const char* commandLine, const char* directory, const char* const* names,
                        size_t nameCount, InstallCommand* command, size_t* badWord) {
  *badWord = 0;
  command->count = 0;
  if (strlen(commandLine) >= sizeof command->text) return kInstallCommandNoProgram;
  strcpy(command->text, commandLine);
  char* rest = nullptr;
  for (char* word = strtok_r(command->text, " \t", &rest); word != nullptr;
       word = strtok_r(nullptr, " \t", &rest)) {
    if (command->count == kInstallWordsMax) return kInstallCommandNoProgram;
    command->argv[command->count++] = word;
  }
  command->argv[command->count] = nullptr;
  if (command->count == 0) return kInstallCommandNoProgram;

  const char* program = command->argv[0];
  const size_t directoryLength = strlen(directory);
  bool downloaded = false;
  if (strncmp(program, directory, directoryLength) == 0 && program[directoryLength] == '/') {
    for (size_t i = 0; i < nameCount && !downloaded; ++i) {
      downloaded = strcmp(program + directoryLength + 1, names[i]) == 0;
    }
  }
  if (!downloaded) return kInstallCommandNotDownloaded;
  for (size_t i = 1; i < command->count; ++i) {
    if (!isPlainWord(command->argv[i])) {
      *badWord = i;
      return kInstallCommandBadWord;
    }
  }
  return kInstallCommandAccepted;
}

}  // namespace slm
