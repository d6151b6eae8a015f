// Agent time and calendar events: the one clock every scheduler reads, comparison of agent times,
// conversion of the server's millisecond texts, the local-to-universal correction, the waits until
// an event's next occurrence, and the agent's random draw. No state but the installed clock, which
// any thread may read while another installs a new one.
#pragma once

#include <cstdint>

namespace slm {

// Agent time: 32-bit seconds since the Unix epoch; differences are signed 32-bit values.
using AgentTime = int32_t;

// Seconds since the Unix epoch. All agent time is read through the installed clock.
using SlmClock = int64_t (*)();

// Installs `clock` as the agent's clock; null restores the system clock.
void setSlmClock(SlmClock clock);

// A (possibly repeating) event: it occurs at start + k * period while not past its end.
struct CalendarEvent {
  AgentTime start = 0;
  AgentTime end = 0;   // 0: the event never ends
  int32_t period = 0;  // seconds; 0 or less: no repetition
};

// How a calendar event repeats: every `value` days, weeks or months, or once.
struct DateRule {
  int32_t type = 0;
  int32_t value = 0;
};

constexpr int32_t kDateRuleOnce = 0;
constexpr int32_t kDateRuleDays = 1;
constexpr int32_t kDateRuleWeeks = 2;
constexpr int32_t kDateRuleMonths = 3;  // value must not be 0

constexpr int32_t kSecondsPerDay = 86400;
constexpr int32_t kSecondsPerWeek = 7 * kSecondsPerDay;

// The current agent time plus `offset` seconds.
AgentTime getNowWithOffset(int32_t offset);

constexpr int kAgentTimesEqual = 0;
constexpr int kAgentTimeLater = 1;
constexpr int kAgentTimeEarlier = 2;
// Whether `a` is equal to, later than or earlier than `b` (signed comparison).
int compareAgentTime(AgentTime a, AgentTime b);

// The leading signed decimal number of `text`, read as milliseconds since the epoch, divided by
// 1000 with truncation toward zero, as agent time. A text (or null) without a number gives 0.
AgentTime serverTimeStringtoAgentTime(const char* text);

// Turns a local time into universal time in place: adds the zone's offset west of universal time
// and, where the zone has daylight saving rules, takes off an hour while it is in force now.
void correctWithTimeZone(AgentTime* time);

// Returned when an event has no further occurrence.
constexpr int32_t kNoOccurrence = -1;

// Seconds from now until the event's next occurrence (0 when it is due now), or kNoOccurrence.
int32_t giveSecondsToEvent(const CalendarEvent& event);

// The same for an event repeating by `rule`. Day and week rules store their period in the event;
// kNoOccurrence also comes back for a once rule whose start has passed, for an unknown rule type,
// and when the calendar arithmetic of a months rule fails.
int32_t giveSecondsToDateEvent(CalendarEvent* event, const DateRule& rule);

// A pseudo-random number below `n` (unsigned: a negative `n` acts as a very large divisor), drawn
// from two values of the C library's generator, which the callers seed. 0 when `n` is 0.
int32_t slm_rand(int32_t n);

}  // namespace slm
