// What TLS to the server costs: one exchange (connect, GET, answer read whole, close) against a
// loopback peer in the clear and over TLS, side by side, with an empty answer (the handshake's
// price, in wall-clock time) and with an 8 MiB answer (the price per byte, in the agent thread's
// CPU time); and a client context built from a CA file and from the system's trust store, which
// is what one context per exchange instead of one per process would add to each. Certificates are
// made at start with the reference server's test CA; the peer runs on its own thread.
#include <benchmark/benchmark.h>

#include <openssl/ssl.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "agent_core/communication/slm_http.h"
#include "agent_core/communication/slm_tls.h"
#include "agent_core/security_settings.h"
#include "support/loopback_server.h"
#include "support/test_ca.h"

namespace slm {
namespace {

constexpr int64_t kCatalogAnswerBytes = int64_t{8} << 20;
constexpr int kChunkBytes = 64 * 1024;

const test::TestCa& benchCa() {
  static const test::TestCa ca({"127.0.0.1"});
  return ca;
}

const std::string& answerOf(int64_t bodyBytes) {
  static std::string empty = "HTTP/1.0 200 OK\r\nContent-Length:0\r\n\r\n";
  static std::string large =
      "HTTP/1.0 200 OK\r\nContent-Length:" + std::to_string(kCatalogAnswerBytes) + "\r\n\r\n" +
      std::string(static_cast<size_t>(kCatalogAnswerBytes), 'c');
  return bodyBytes == 0 ? empty : large;
}

// One GET whose answer is read to its end; false unless all `bodyBytes` came.
bool exchange(uint16_t port, int64_t bodyBytes) {
  HttpHandle* handle = newHttpHandle(kHttpGet, "/x", "HTTP/1.0", "127.0.0.1", port, 30, 0);
  if (handle == nullptr) return false;
  putHeader(handle, kHeaderContentEncoding, kHeaderSuppressed);
  setAnswerLimit(handle, bodyBytes);
  bool whole = getAnswer(handle) == 1;
  static char chunk[kChunkBytes];
  int64_t received = 0;
  while (whole) {
    int got = getContentChunk(handle, chunk, kChunkBytes);
    if (got == kContentEnd) break;
    whole = got > 0;
    received += got;
  }
  freeHttpHandle(handle);
  return whole && received == bodyBytes;
}

void BM_Exchange(benchmark::State& state, bool tls, int64_t bodyBytes) {
  const test::TestCa& ca = benchCa();
  SecuritySettings settings;
  settings.serverTls = tls;
  strcpy(settings.tlsCaFile, ca.caFile().c_str());
  setSecuritySettings(settings);
  std::optional<test::LoopbackTls> served;
  if (tls) served = test::LoopbackTls{ca.certFile(), ca.keyFile()};
  for (auto _ : state) {
    state.PauseTiming();
    std::optional<test::LoopbackServer> peer(
        std::in_place, test::LoopbackScript{.replies = {answerOf(bodyBytes)}, .tls = served});
    state.ResumeTiming();
    bool whole = peer->port() != 0 && exchange(peer->port(), bodyBytes);
    state.PauseTiming();
    peer.reset();
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("the exchange went wrong");
      break;
    }
  }
  setSecuritySettings(SecuritySettings{});
  state.SetBytesProcessed(state.iterations() * bodyBytes);
}

void BM_NewTlsContext(benchmark::State& state, bool systemStore) {
  const std::string caFile = systemStore ? "" : benchCa().caFile();
  for (auto _ : state) {
    SSL_CTX* context = newTlsContext(caFile.c_str());
    if (context == nullptr) {
      state.SkipWithError("no context");
      break;
    }
    SSL_CTX_free(context);
  }
}

const bool registered = [] {
  for (bool tls : {false, true}) {
    for (int64_t body : {int64_t{0}, kCatalogAnswerBytes}) {
      const std::string name = std::string("tls_cost/exchange/") + (tls ? "tls" : "plain") +
                               "/answer_bytes:" + std::to_string(body);
      benchmark::RegisterBenchmark(
          name.c_str(), [tls, body](benchmark::State& state) { BM_Exchange(state, tls, body); })
          // A fixed count: each exchange leaves a port in TIME_WAIT, and a timed run of the empty
          // answer would take them all.
          ->Iterations(body == 0 ? 500 : 20)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::RegisterBenchmark("tls_cost/new_context/ca_file", [](benchmark::State& state) {
    BM_NewTlsContext(state, false);
  })->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("tls_cost/new_context/system_store", [](benchmark::State& state) {
    BM_NewTlsContext(state, true);
  })->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace
}  // namespace slm
