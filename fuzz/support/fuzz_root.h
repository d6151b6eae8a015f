// What every fuzz target shares: a temporary agent root made once per process (removed at exit),
// the agent's trace written into it at the most detailed level so that every message's formatting
// sees the parsed bytes, and the checks a target makes on what the parser gave back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/support/slm_list.h"

namespace slm::fuzz {

// Makes the root (with the agent's cache, log, temporary and /etc directories) on first use,
// points the agent at it and starts the trace. Returns the root's path.
const std::string& fuzzRoot();
// `relative` below the root.
std::string rootFile(const std::string& relative);
// Replaces the file at `relative` below the root with `size` bytes of `data`.
void writeRootFile(const std::string& relative, const uint8_t* data, size_t size);
std::string readRootFile(const std::string& relative);
void removeRootFile(const std::string& relative);
bool rootFileExists(const std::string& relative);

// Loads a small configuration (agent id, division, tag, customer; no server, so that a cache file
// written for any server is accepted) and builds the agent's values from it, once per process.
void initAgentValues();

// Creates, once per process, a server cache whose preferred server is "fuzz.example":8080, the
// server that catalog and unknown-file caches name in their files. False when that failed.
bool preferredServerReady();

// Checks that every FileRecord of `files` is found in the catalog, with at most its sixteen
// components.
void checkFilesFound(SlmList* files);

// Writes what was violated and where, then aborts: libFuzzer keeps the input as a crash.
[[noreturn]] void checkFailed(const char* condition, const char* file, int line);

}  // namespace slm::fuzz

#define FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::slm::fuzz::checkFailed(#condition, __FILE__, __LINE__))
