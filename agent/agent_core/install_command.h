// The rule a self-update's installation command line must keep before the agent runs it without a
// shell: blank-separated words, the first naming one of the files just downloaded into the
// temporary directory, every further word made only of characters no shell or program reads as
// anything but text. Module paths from the driver configuration keep the same character rule.
#pragma once

#include <cstddef>

namespace slm {

// Whether `word` is not empty and holds only A-Z a-z 0-9 . _ , = / : + -.
bool isPlainWord(const char* word);

constexpr size_t kInstallWordsMax = 256;

// A command line split into words: `text` holds the words, each terminated; `argv` points at
// them, null-terminated, ready for the program runner.
struct InstallCommand {
  char text[512];
  const char* argv[kInstallWordsMax + 1];
  size_t count;
};

constexpr int kInstallCommandAccepted = 0;
constexpr int kInstallCommandNoProgram = 1;      // no word at all, or one over the buffer
constexpr int kInstallCommandNotDownloaded = 2;  // the first word names no downloaded file
constexpr int kInstallCommandBadWord = 3;        // a further word breaks the character rule

// Splits `commandLine` on blanks (spaces and tabs) into `command`. The first word must be
// `directory` + "/" + one of the `nameCount` names in `names`; every further word must be plain.
// kInstallCommandAccepted with `command` filled; otherwise the code of the first rule broken,
// with `*badWord` the index of the word that broke it.
[[nodiscard]] int splitInstallCommand(const char* commandLine, const char* directory,
                                      const char* const* names, size_t nameCount,
                                      InstallCommand* command, size_t* badWord);

}  // namespace slm
