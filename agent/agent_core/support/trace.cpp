// The process-wide trace record and its writer. The mutex serialises messages and the roll-over;
// the level and the active flag are read without it, so a level change reaches other threads at
// their next test.
#include "agent_core/support/trace.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "agent_core/support/bytes.h"

namespace slm {
namespace {

struct TraceRecord {
  FILE* stream = nullptr;
  bool toStdout = false;
  // A stopped trace keeps its stream recorded but closed: writes then go nowhere.
  bool closed = false;
  std::atomic<int32_t> level{0};
  char fileName[kTraceNameMax + 1] = "";
  std::atomic<int32_t> sizeLimit{kTraceDefaultSize};
  std::atomic<bool> active{false};
};

TraceRecord trace;
// The first message of every trace started; set once at start-up, before any other thread runs.
const char* startNotice = nullptr;
// Statically initialised and never destroyed, so that a message written while the trace is being
// stopped or restarted still finds a valid lock.
pthread_mutex_t trace_mutex = PTHREAD_MUTEX_INITIALIZER;

class TraceLock {
 public:
  TraceLock() { pthread_mutex_lock(&trace_mutex); }
  ~TraceLock() { pthread_mutex_unlock(&trace_mutex); }
  TraceLock(const TraceLock&) = delete;
  TraceLock& operator=(const TraceLock&) = delete;
};

void closeStream() {
  if (trace.stream != nullptr && !trace.toStdout && !trace.closed) fclose(trace.stream);
  trace.closed = true;
}

// Opens the recorded file name empty. Returns 0 or the system error number.
int openEmpty() {
  FILE* stream = fopen(trace.fileName, "w+e");
  if (stream == nullptr) return errno;
  trace.stream = stream;
  trace.toStdout = false;
  trace.closed = false;
  return 0;
}

void rollOver() {
  trace.active = false;
  // Built in place: a roll-over must not fail for want of memory.
  char backup[kTraceNameMax + 1];
  size_t length = strlen(copyBounded(backup, kTraceNameMax, trace.fileName));
  copyBounded(backup + length, kTraceNameMax - length, ".bck");
  closeStream();
  trace.stream = nullptr;
  remove(backup);
  rename(trace.fileName, backup);
  if (openEmpty() == 0) trace.active = true;
}

// Most messages are formatted on the stack; a longer one is formatted again on the heap.
constexpr size_t kInlineMessageBytes = 1024;

// Writes `length` bytes of a formatted message with every control byte spelt out, so that what a
// message carries (a file name, a server's text) can never start a line of its own: the trace's
// lines are the ones it writes itself.
void writeEscaped(FILE* stream, const char* text, size_t length) {
  size_t plain = 0;
  for (size_t at = 0; at < length; ++at) {
    const unsigned char byte = static_cast<unsigned char>(text[at]);
    if (!isControlByte(byte)) continue;
    fwrite(text + plain, 1, at - plain, stream);
    plain = at + 1;
    switch (byte) {
      case '\n':
        fputs("\\n", stream);
        break;
      case '\r':
        fputs("\\r", stream);
        break;
      case '\t':
        fputs("\\t", stream);
        break;
      default:
        fprintf(stream, "\\x%02x", byte);
    }
  }
  fwrite(text + plain, 1, length - plain, stream);
}

}  // namespace

void setTraceStartNotice(const char* text) {
  startNotice = text;
}

// startTrace without its notice; the notice is written once this has released the lock.
static void openTrace(const char* path) {
  TraceLock lock;
  closeStream();
  trace.stream = nullptr;
  if (path == nullptr) {
    trace.stream = stdout;
    trace.toStdout = true;
    trace.closed = false;
    copyBounded(trace.fileName, kTraceNameMax, "stdout");
  } else {
    copyBounded(trace.fileName, kTraceNameMax, path);
    openEmpty();
  }
  trace.level = 0;
  trace.sizeLimit = kTraceDefaultSize;
  trace.active = trace.stream != nullptr;
}

void startTrace(const char* path) {
  openTrace(path);
  // At level 0, which a start sets, so that no configured level keeps it out of the file.
  if (startNotice != nullptr) SLM_TRACE(0, "%s", startNotice);
}

void setTraceLevel(int32_t level) {
  if (level < -1 || level > 3) return;
  TraceLock lock;
  trace.level = level;
  if (level == -1) {
    closeStream();
    trace.stream = nullptr;
    trace.active = false;
  }
}

void setTraceSize(int32_t bytes) {
  if (bytes > kTraceMinSize && bytes < kTraceMaxSize) trace.sizeLimit = bytes;
  if (traceActive(1)) {
    outputTrace("", 0, "Trace size (bytes): %d (min: %d, max: %d)", trace.sizeLimit.load(),
                kTraceMinSize, kTraceMaxSize);
  }
}

bool traceActive(int32_t level) {
  return trace.active && trace.level >= level;
}

void outputTrace(const char* file, int line, const char* format, ...) {
  TraceLock lock;
  if (trace.stream == nullptr || !trace.active || trace.closed) return;
  // Standard output is never rolled over: its recorded name "stdout" is no file to rename, and
  // closing it would silence the process's own output.
  if (!trace.toStdout && ftell(trace.stream) >= static_cast<long>(trace.sizeLimit)) {
    rollOver();
    if (!trace.active) return;
  }
  time_t now = time(nullptr);
  char when[32] = "";
  ctime_r(&now, when);
  when[24] = '\0';  // drop the calendar form's line end
  fprintf(trace.stream, "File: %s Line: %d Time: %s Tid: %u\n  ", file, line, when,
          static_cast<unsigned>(pthread_self()));
  char onStack[kInlineMessageBytes];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int formatted = vsnprintf(onStack, sizeof onStack, format, args);
  va_end(args);
  const char* text = onStack;
  size_t length = formatted < 0 ? 0 : static_cast<size_t>(formatted);
  std::unique_ptr<char[]> onHeap;
  if (length >= sizeof onStack) {
    onHeap.reset(new (std::nothrow) char[length + 1]);
    if (onHeap != nullptr && vsnprintf(onHeap.get(), length + 1, format, again) >= 0) {
      text = onHeap.get();
    } else {
      length = sizeof onStack - 1;  // without the memory, the message's beginning
    }
  }
  va_end(again);
  writeEscaped(trace.stream, text, length);
  fputc('\n', trace.stream);
  fflush(trace.stream);
}

void stopTrace() {
  TraceLock lock;
  closeStream();
}

int resumeTrace() {
  TraceLock lock;
  if (trace.stream == nullptr || !trace.closed || trace.toStdout) return -1;
  FILE* stream = fopen(trace.fileName, "a+e");
  if (stream == nullptr) return errno;
  trace.stream = stream;
  trace.closed = false;
  return 1;
}

int restartTrace() {
  TraceLock lock;
  // A stopped trace still has its (closed) stream recorded, so only a trace turned off by level -1
  // or one that never opened is reopened here.
  if (trace.stream != nullptr) return -1;
  int error = openEmpty();
  return error == 0 ? 1 : error;
}

}  // namespace slm
