// The agent's trace: one text file (or standard output) shared by every thread, each message
// stamped with source position, local time and thread, rolled over to one ".bck" backup when the
// file passes its size limit. Every message goes through SLM_TRACE.
#pragma once

#include <cstdint>

namespace slm {

constexpr int32_t kTraceDefaultSize = 2000000;
constexpr int32_t kTraceMinSize = 5000;       // limits at or below this are refused
constexpr int32_t kTraceMaxSize = 100000000;  // limits at or above this are refused
constexpr int kTraceNameMax = 1023;

// The bytes that would break a line of text apart or hide in it: 0x00 to 0x1F and 0x7F.
constexpr bool isControlByte(unsigned char byte) {
  return byte < 0x20 || byte == 0x7F;
}

// `path` null traces to standard output. Empties the file, resets level 0 and the default size,
// then writes the start notice, if one is set.
void startTrace(const char* path);
// A message every trace started afterwards begins with (null: none), such as a warning about the
// build. `text` must outlive the process's traces; set it before any thread starts.
void setTraceStartNotice(const char* text);
// Stores -1..3 and ignores other values; -1 also closes the stream and turns tracing off.
void setTraceLevel(int32_t level);
void setTraceSize(int32_t bytes);
bool traceActive(int32_t level);
// Writes one message. Control bytes the formatted text holds are written escaped ("\n", "\r",
// "\t", "\x1b"): each message stays on its own line, whatever its arguments carry.
void outputTrace(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void stopTrace();
// 1 when the file was reopened, -1 when a stream is still recorded, else the system error number.
int restartTrace();
// Reopens a stopped trace's file for appending, with its level and size limit as they were: the
// trace of an agent that goes on after its installer ran. 1 when reopened, -1 when the trace is
// not stopped, else the system error number.
int resumeTrace();

}  // namespace slm

// The one trace call: the level test first, so that arguments are evaluated only when the message
// is wanted.
#define SLM_TRACE(level, ...)                                                           \
  do {                                                                                  \
    if (::slm::traceActive(level)) ::slm::outputTrace(__FILE__, __LINE__, __VA_ARGS__); \
  } while (0)
