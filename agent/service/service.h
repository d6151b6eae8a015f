// The ordered bring-up and tear-down of the agent's subsystems, shared by the daemon and the
// self-update, and the language-support set-up every use of the program starts with.
#pragma once

namespace slm {

struct CodeSet;
// Code sets of the language-support layer, made by slmLocalizationInit.
extern CodeSet* default_codeset;
extern CodeSet* utf8_codeset;

constexpr int kInitOk = 0;
constexpr int kInitFailed = 1;
constexpr int kInitCacheFailed = -1;

// Runs every start-up step in order; kInitOk with the worker threads running, kInitFailed when a
// step before the caches failed, kInitCacheFailed when the caches could not be created.
int serviceInitialization();
int serviceFinalization();

int slmLocalizationInit();
void slmLocalizationFree();

}  // namespace slm
