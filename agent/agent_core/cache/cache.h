// The order in which the persistent caches are created at start-up and deleted at stop: the
// catalog cache, the unknown files table, then the server cache, which starts from the server
// named in the configuration. Runs on the starting thread, while the configuration is loaded.
#pragma once

namespace slm {

constexpr int kCacheCreated = 0;
constexpr int kCacheNotCreated = 1;

// Creates the caches in order and stops at the first that fails, after its message.
[[nodiscard]] int createCache();
// Deletes the caches in the order they were created; each writes its file first.
void deleteCache();

}  // namespace slm
