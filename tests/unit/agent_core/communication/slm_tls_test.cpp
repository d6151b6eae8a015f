// TLS on the socket stream against a TLS peer on loopback, with certificates made at test time:
// which servers the handshake accepts, the pins, and how reads end.
#include "agent_core/communication/slm_tls.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "agent_core/communication/slm_stream.h"
#include "agent_core/security_settings.h"
#include "agent_core/support/trace.h"
#include "support/loopback_server.h"
#include "support/temp_root.h"
#include "support/test_ca.h"

namespace slm {
namespace {

using test::LoopbackScript;
using test::LoopbackServer;
using test::LoopbackTls;
using test::TestCa;

// Certificates take a moment to make: each is made once for the whole run.
const TestCa& localCa() {
  static const TestCa ca;  // 127.0.0.1 and localhost
  return ca;
}
const TestCa& otherCa() {
  static const TestCa ca;
  return ca;
}
const TestCa& elsewhereCa() {
  static const TestCa ca({"elsewhere.example"});
  return ca;
}

// A well-formed pin: its last character carries no bits past the 32 bytes.
std::string pinOf(char filler) {
  return std::string(kTlsPinChars - 2, filler) + "A=";
}

class TlsStream : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(localCa().pin().empty()) << "no test certificates";
    restartTrace();
  }
  void TearDown() override {
    setSecuritySettings(SecuritySettings{});
    stopTrace();
    setTraceLevel(-1);
  }
  void restartTrace() {
    startTrace(dir_.file("trace.log").c_str());
    setTraceLevel(0);
  }
  std::string trace() const { return test::readFile(dir_.file("trace.log")); }

  // Trusts `caFile` (copied to the same place every time, so the context must see it change) or,
  // when empty, the system's store; pins `pins`.
  void trust(const std::string& caFile, const std::string& pins = "") {
    SecuritySettings settings;
    settings.serverTls = true;
    if (!caFile.empty()) {
      dir_.writeFile("trusted.pem", test::readFile(caFile));
      strcpy(settings.tlsCaFile, dir_.file("trusted.pem").c_str());
    }
    strcpy(settings.tlsPins, pins.c_str());
    setSecuritySettings(settings);
  }

  // An open socket stream to `port` with TLS started for `host`; `started` is the result.
  SlmStream* connect(uint16_t port, const char* host, int* started, int16_t timeout = 5) {
    SlmStream* stream = newSocketStream("127.0.0.1", 9, port, timeout);
    EXPECT_EQ(slm_sopen(stream->context), 0);
    *started = startSocketTls(stream, host, port);
    return stream;
  }
  void close(SlmStream* stream) {
    slm_sclose(stream->context);
    closeSocketStream(stream);
  }

  test::TempDir dir_;
};

TEST_F(TlsStream, HandshakeAcceptsOnlyTheTrustedNamedAndPinnedServer) {
  const LoopbackTls local{localCa().certFile(), localCa().keyFile()};
  const LoopbackTls elsewhere{elsewhereCa().certFile(), elsewhereCa().keyFile()};
  const std::string pins = pinOf('A') + " , " + localCa().pin();
  struct Case {
    const char* what;
    std::optional<LoopbackTls> served;  // none: a peer in the clear
    std::string trusted;
    const char* host;
    std::string pins;
    std::string refusal;  // the ERROR line's end, empty when TLS starts
  };
  const Case cases[] = {
      {"address", local, localCa().caFile(), "127.0.0.1", "", ""},
      // The same file with another CA in it, as after an operator replaced it.
      {"other CA", local, otherCa().caFile(), "127.0.0.1", "",
       "failed: certificate verify failed (unable to get local issuer certificate)"},
      {"name", local, localCa().caFile(), "localhost", "", ""},
      {"pinned among others", local, localCa().caFile(), "127.0.0.1", pins, ""},
      {"system store", local, "", "127.0.0.1", "",
       "failed: certificate verify failed (unable to get local issuer certificate)"},
      {"other address", elsewhere, elsewhereCa().caFile(), "127.0.0.1", "",
       "failed: certificate verify failed (IP address mismatch)"},
      {"other name", elsewhere, elsewhereCa().caFile(), "localhost", "",
       "failed: certificate verify failed (hostname mismatch)"},
      {"wrong pin", local, localCa().caFile(), "127.0.0.1", pinOf('A'),
       "refused: public key pin does not match"},
      {"only bad pins", local, localCa().caFile(), "127.0.0.1", "not-a-pin",
       "refused: public key pin does not match"},
      {"plain peer", std::nullopt, localCa().caFile(), "127.0.0.1", "",
       "failed: wrong version number"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    restartTrace();
    trust(c.trusted, c.pins);
    LoopbackServer server({.start = LoopbackScript::Start::kOnConnect,
                           .replies = {c.served ? "pong" : "HTTP/1.0 200 OK\r\n\r\n"},
                           .tls = c.served});
    int started = 0;
    SlmStream* stream = connect(server.port(), c.host, &started);
    if (c.refusal.empty()) {
      EXPECT_EQ(started, 0) << trace();
      EXPECT_EQ(slm_swrite(stream->context, "ping", 4, 0), 4);
      char answer[8] = "";
      EXPECT_EQ(slm_sread(stream->context, answer, sizeof answer, 0), 4);
      EXPECT_STREQ(answer, "pong");
    } else {
      EXPECT_EQ(started, kStreamIoError);
      // Refused means refused: nothing goes out in the clear after it.
      EXPECT_EQ(slm_swrite(stream->context, "ping", 4, 0), kStreamIoError);
      const std::string peer = std::string(c.host) + ":" + std::to_string(server.port()) + " ";
      const std::string line =
          (c.refusal.rfind("refused", 0) == 0 ? "ERROR - TLS with "
                                              : "ERROR - TLS handshake with ") +
          peer + c.refusal + "\n";
      EXPECT_NE(trace().find(line), std::string::npos) << trace();
    }
    close(stream);
    EXPECT_EQ(server.received().find("ping") != std::string::npos, c.refusal.empty());
  }
}

TEST_F(TlsStream, ReadsWhatTlsHoldsBeforeWaitingAndEndsOnlyAtCloseNotify) {
  trust(localCa().caFile());
  {
    // One record, read in two pieces from a peer that then stays silent: the second piece is
    // already inside TLS, and the socket shows nothing for it.
    LoopbackServer server({.start = LoopbackScript::Start::kOnConnect,
                           .replies = {"hello world"},
                           .closeAfterReplies = false,
                           .tls = LoopbackTls{localCa().certFile(), localCa().keyFile()}});
    int started = 0;
    SlmStream* stream = connect(server.port(), "127.0.0.1", &started, 1);
    ASSERT_EQ(started, 0);
    char piece[8] = "";
    EXPECT_EQ(slm_sread(stream->context, piece, 5, 0), 5);
    EXPECT_EQ(slm_sread(stream->context, piece + 5, 2, 0), 2);
    EXPECT_STREQ(piece, "hello w");
    EXPECT_EQ(slm_sread(stream->context, piece, 4, 0), 4);
    EXPECT_EQ(slm_sread(stream->context, piece, 4, 0), kStreamReadTimeout);
    close(stream);
  }
  for (bool closeNotify : {true, false}) {
    SCOPED_TRACE(closeNotify ? "close_notify" : "cut short");
    restartTrace();
    LoopbackServer server(
        {.start = LoopbackScript::Start::kOnConnect,
         .replies = {"last"},
         .tls = LoopbackTls{localCa().certFile(), localCa().keyFile(), closeNotify}});
    int started = 0;
    SlmStream* stream = connect(server.port(), "127.0.0.1", &started);
    ASSERT_EQ(started, 0);
    char answer[8];
    EXPECT_EQ(slm_sread(stream->context, answer, sizeof answer, 0), 4);
    // An end without close_notify may be anybody's doing on the way: it is no end of the answer.
    EXPECT_EQ(slm_sread(stream->context, answer, sizeof answer, 0),
              closeNotify ? kStreamEndOfData : kStreamIoError);
    EXPECT_EQ(trace().find("ERROR - TLS with 127.0.0.1:" + std::to_string(server.port()) +
                           " broken: unexpected eof while reading\n") != std::string::npos,
              !closeNotify)
        << trace();
    close(stream);
  }
}

TEST(TlsPins, ListsAreReadAndWhatIsNoDigestMatchesNothing) {
  test::TempDir dir;
  startTrace(dir.file("trace.log").c_str());
  setTraceLevel(0);
  const std::string a = pinOf('A'), b = pinOf('b');
  std::string nine;
  std::vector<std::string> eight;
  for (char c : std::string("ABCDEFGHI")) {
    nine += pinOf(c) + ",";
    if (c != 'I') eight.push_back(pinOf(c));
  }
  struct Case {
    std::string text;
    bool configured;
    std::vector<std::string> pins;
    int refused;
  };
  const Case cases[] = {
      {"", false, {}, 0},
      {" , ,", false, {}, 0},
      {a, true, {a}, 0},
      {a.substr(0, kTlsPinChars - 1), true, {a}, 0},  // the '=' left off
      {" " + a + " ,\t" + b + " ", true, {a, b}, 0},
      {"abc," + a, true, {a}, 1},
      {"abc", true, {}, 1},
      {a.substr(0, kTlsPinChars - 2) + "B=", true, {}, 1},  // B carries bits past 32 bytes
      {a.substr(0, kTlsPinChars - 1) + "A", true, {}, 1},
      {a.substr(0, kTlsPinChars - 2) + "*=", true, {}, 1},
      {a + "=", true, {}, 1},
      {nine, true, eight, 1},  // one past the eight kept
  };
  for (const Case& c : cases) {
    TlsPins pins;
    EXPECT_EQ(parseTlsPins(c.text.c_str(), &pins), c.refused) << c.text;
    EXPECT_EQ(pins.configured, c.configured) << c.text;
    EXPECT_EQ(std::vector<std::string>(pins.pins, pins.pins + pins.count), c.pins) << c.text;
  }
  stopTrace();
  setTraceLevel(-1);
  EXPECT_NE(test::readFile(dir.file("trace.log"))
                .find("ERROR - Bad tls_pin_sha256 entry 'abc': not one of 8 base64 SHA-256 "
                      "values, it matches no key\n"),
            std::string::npos);
}

}  // namespace
}  // namespace slm
