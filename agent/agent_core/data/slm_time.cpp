// Agent time arithmetic. Times and differences wrap as 32-bit values, the way the cache files and
// the server exchange carry them; calendar months are worked out in local time.
#include "agent_core/data/slm_time.h"

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "agent_core/support/trace.h"

namespace slm {
namespace {

int64_t systemClock() {
  return static_cast<int64_t>(time(nullptr));
}

std::atomic<SlmClock> installedClock{systemClock};

// Modular 32-bit arithmetic: agent times wrap instead of overflowing.
AgentTime addSeconds(AgentTime time, int64_t seconds) {
  return static_cast<AgentTime>(static_cast<uint32_t>(time) + static_cast<uint32_t>(seconds));
}

int32_t secondsBetween(AgentTime later, AgentTime earlier) {
  return static_cast<int32_t>(static_cast<uint32_t>(later) - static_cast<uint32_t>(earlier));
}

// A moment's place within its month, for telling whether a monthly date has passed this month.
int64_t positionInMonth(const tm& fields) {
  return int64_t{fields.tm_mday} * kSecondsPerDay + fields.tm_hour * 3600 + fields.tm_min * 60 +
         fields.tm_sec;
}

int32_t secondsToMonthlyOccurrence(AgentTime start, AgentTime now, int32_t everyMonths) {
  tzset();
  time_t nowSeconds = now;
  time_t startSeconds = start;
  tm nowFields{};
  tm startFields{};
  if (localtime_r(&nowSeconds, &nowFields) == nullptr) return kNoOccurrence;
  if (localtime_r(&startSeconds, &startFields) == nullptr) return kNoOccurrence;

  int32_t months =
      (nowFields.tm_year - startFields.tm_year) * 12 + nowFields.tm_mon - startFields.tm_mon;
  SLM_TRACE(3, " *** months diff1 %d, cur_m %d, start_m %d", months, nowFields.tm_mon,
            startFields.tm_mon);
  if (positionInMonth(nowFields) >= positionInMonth(startFields)) ++months;
  if (months % everyMonths != 0) months = (months / everyMonths + 1) * everyMonths;

  tm target = startFields;
  target.tm_mon += months;
  // Let the zone decide daylight saving for the target date, so the wall-clock hour is kept.
  target.tm_isdst = -1;
  time_t next = mktime(&target);
  if (next == static_cast<time_t>(-1)) return kNoOccurrence;
  // A start day the target month lacks (the 31st) rolls into the next month; going back by the
  // rolled day of month lands on the intended month's last day.
  if (target.tm_mday != startFields.tm_mday) next -= int64_t{target.tm_mday} * kSecondsPerDay;
  return secondsBetween(static_cast<AgentTime>(next), now);
}

}  // namespace

void setSlmClock(SlmClock clock) {
  installedClock.store(clock == nullptr ? systemClock : clock);
}

AgentTime getNowWithOffset(int32_t offset) {
  return addSeconds(static_cast<AgentTime>(installedClock.load()()), offset);
}

int compareAgentTime(AgentTime a, AgentTime b) {
  if (a == b) return kAgentTimesEqual;
  return a > b ? kAgentTimeLater : kAgentTimeEarlier;
}

AgentTime serverTimeStringtoAgentTime(const char* text) {
  if (text == nullptr) return 0;
  long long milliseconds = strtoll(text, nullptr, 10);
  return static_cast<AgentTime>(milliseconds / 1000);
}

void correctWithTimeZone(AgentTime* time) {
  if (time == nullptr) return;
  tzset();
  int32_t secondsWest = static_cast<int32_t>(::timezone);
  int32_t daylightFlag = 0;
  if (::daylight != 0) {
    time_t now = getNowWithOffset(0);
    tm fields{};
    if (localtime_r(&now, &fields) != nullptr && fields.tm_isdst > 0)
      daylightFlag = fields.tm_isdst;
  }
  SLM_TRACE(3, "SLMTIME - Timezone %d, daylight %d", secondsWest, daylightFlag);
  *time = addSeconds(*time, int64_t{secondsWest} - int64_t{3600} * daylightFlag);
}

int32_t giveSecondsToEvent(const CalendarEvent& event) {
  AgentTime now = getNowWithOffset(0);
  if (event.end != 0 && compareAgentTime(now, event.end) == kAgentTimeLater) return kNoOccurrence;
  if (compareAgentTime(now, event.start) != kAgentTimeLater)
    return secondsBetween(event.start, now);

  int64_t elapsed = secondsBetween(now, event.start);
  int32_t wait = 0;
  if (event.period >= 1) {
    wait = static_cast<int32_t>((event.period - elapsed % event.period) % event.period);
  }
  if (event.end != 0 && compareAgentTime(addSeconds(now, wait), event.end) == kAgentTimeLater) {
    return kNoOccurrence;
  }
  return wait;
}

int32_t giveSecondsToDateEvent(CalendarEvent* event, const DateRule& rule) {
  if (event == nullptr) return kNoOccurrence;
  AgentTime now = getNowWithOffset(0);
  SLM_TRACE(2, "SLMTIME - Date event start %d, end %d, per %d;   type %d, value %d", event->start,
            event->end, event->period, rule.type, rule.value);
  // Before its start every rule, a once rule included, waits for the start itself.
  if (compareAgentTime(event->start, now) != kAgentTimeEarlier) {
    return secondsBetween(event->start, now);
  }
  switch (rule.type) {
    case kDateRuleDays:
      event->period = static_cast<int32_t>(int64_t{rule.value} * kSecondsPerDay);
      SLM_TRACE(2, "SLMTIME - Days interval %d", rule.value);
      return giveSecondsToEvent(*event);
    case kDateRuleWeeks:
      event->period = static_cast<int32_t>(int64_t{rule.value} * kSecondsPerWeek);
      SLM_TRACE(2, "SLMTIME - Weeks interval %d", rule.value);
      return giveSecondsToEvent(*event);
    case kDateRuleMonths:
      return secondsToMonthlyOccurrence(event->start, now, rule.value);
    default:
      return kNoOccurrence;
  }
}

int32_t slm_rand(int32_t n) {
  uint32_t first = static_cast<uint32_t>(rand());
  uint32_t second = static_cast<uint32_t>(rand());
  uint32_t scale = n < 0 ? 60 : 1;
  // Unsigned on purpose: a negative bound becomes a divisor near 2^32.
  uint32_t divisor = static_cast<uint32_t>(n);
  if (divisor == 0) return 0;
  return static_cast<int32_t>((first * scale + second % scale) % divisor);
}

}  // namespace slm
