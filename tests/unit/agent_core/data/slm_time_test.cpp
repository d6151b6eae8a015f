#include "agent_core/data/slm_time.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "agent_core/support/trace.h"
#include "support/fake_clock.h"
#include "support/temp_root.h"

namespace slm {
namespace {

using test::FakeClock;

// Sets TZ for the life of the object and puts the previous value back.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = getenv("TZ")) saved_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> saved_;
};

constexpr const char* kUtc = "UTC0";
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr const char* kUsEastern = "EST5EDT,M3.2.0,M11.1.0";
constexpr const char* kJapan = "JST-9";
constexpr AgentTime kDay = kSecondsPerDay;

// Agent time of a wall-clock moment in the zone in force.
AgentTime wallClock(int year, int month, int day, int hour, int minute = 0) {
  tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_isdst = -1;
  return static_cast<AgentTime>(mktime(&fields));
}

TEST(SlmTime, ReplacedClockDrivesNowAndSystemClockReturnsAfterwards) {
  {
    FakeClock clock(1000);
    EXPECT_EQ(getNowWithOffset(-30), 970);
    clock.advance(59);
    EXPECT_EQ(getNowWithOffset(1), 1060);
  }
  int64_t before = time(nullptr);
  AgentTime now = getNowWithOffset(5);
  EXPECT_GE(now, before + 5);
  EXPECT_LE(now, time(nullptr) + 5);
}

TEST(SlmTime, CompareAgentTimeIsSigned) {
  struct Case {
    AgentTime a, b;
    int expected;
  };
  const Case cases[] = {{5, 5, kAgentTimesEqual},
                        {6, 5, kAgentTimeLater},
                        {4, 5, kAgentTimeEarlier},
                        {INT_MIN, INT_MAX, kAgentTimeEarlier},
                        {INT_MAX, INT_MIN, kAgentTimeLater}};
  for (const Case& c : cases) {
    EXPECT_EQ(compareAgentTime(c.a, c.b), c.expected) << c.a << " vs " << c.b;
  }
}

TEST(SlmTime, ServerTimeStringsTruncateMillisecondsTowardZero) {
  struct Case {
    const char* text;
    AgentTime expected;
  };
  const Case cases[] = {{"1999", 1},
                        {"-1999", -1},
                        {"999", 0},
                        {"1700000000999", 1700000000},
                        {"2147483647000", INT_MAX},
                        {"-2147483648000", INT_MIN},
                        {"12345xyz", 12},
                        {"", 0},
                        {"abc", 0},
                        {"-", 0},
                        {nullptr, 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(serverTimeStringtoAgentTime(c.text), c.expected) << (c.text ? c.text : "(null)");
  }
}

TEST(SlmTime, SecondsToEventFollowPeriodsAndEnds) {
  struct Case {
    CalendarEvent event;
    AgentTime now;
    int32_t expected;
  };
  const Case cases[] = {
      {{1000, 0, 60}, 1130, 50},
      {{1000, 0, 60}, 1180, 0},  // exactly on an occurrence
      {{1000, 0, 60}, 1000, 0},
      {{1000, 0, 60}, 900, 100},  // before the start
      {{1000, 1100, 0}, 1101, kNoOccurrence},
      {{1000, 1100, 0}, 1100, 0},               // the end itself still counts
      {{1000, 1150, 60}, 1130, kNoOccurrence},  // next would be 1180
      {{1000, 1180, 60}, 1130, 50},
      {{1000, 0, 0}, 2000, 0},  // a one-shot event that passed is due now
      {{1000, 0, -5}, 2000, 0},
      {{2000, 1500, 60}, 1600, kNoOccurrence},  // ended before it started
      {{2000, 2500, 60}, 1600, 400},
  };
  for (const Case& c : cases) {
    FakeClock clock(c.now);
    EXPECT_EQ(giveSecondsToEvent(c.event), c.expected)
        << "start " << c.event.start << " end " << c.event.end << " period " << c.event.period
        << " now " << c.now;
  }
}

TEST(SlmTime, DateEventBeforeItsStartWaitsForTheStartWhateverTheRule) {
  FakeClock clock(50000);
  for (int32_t type : {kDateRuleOnce, kDateRuleDays, kDateRuleWeeks, kDateRuleMonths, 9}) {
    CalendarEvent future{50700, 0, 0};
    EXPECT_EQ(giveSecondsToDateEvent(&future, {type, 2}), 700) << "type " << type;
    CalendarEvent now{50000, 0, 0};
    EXPECT_EQ(giveSecondsToDateEvent(&now, {type, 2}), 0) << "type " << type;
  }
}

TEST(SlmTime, DateRulesSetThePeriodAndCountFromTheStart) {
  const AgentTime start = 1000000;
  FakeClock clock(start + kDay + 100);
  struct Case {
    DateRule rule;
    AgentTime end;
    int32_t period;  // before and after
    int32_t expectedSeconds;
    int32_t expectedPeriod;
  };
  const Case cases[] = {
      {{kDateRuleDays, 2}, 0, 0, kDay - 100, 2 * kDay},
      {{kDateRuleDays, 1}, 0, 0, kDay - 100, kDay},
      {{kDateRuleWeeks, 1}, 0, 0, 6 * kDay - 100, 7 * kDay},
      {{kDateRuleWeeks, 3}, 0, 0, 20 * kDay - 100, 21 * kDay},
      // The event's end still applies once the period comes from the rule.
      {{kDateRuleDays, 2}, start + kDay + 200, 0, kNoOccurrence, 2 * kDay},
      // Once and unknown rules have no occurrence after the start and keep the period.
      {{kDateRuleOnce, 1}, 0, 3600, kNoOccurrence, 3600},
      {{4, 1}, 0, 3600, kNoOccurrence, 3600},
      {{-1, 1}, 0, 3600, kNoOccurrence, 3600},
  };
  for (const Case& c : cases) {
    CalendarEvent event{start, c.end, c.period};
    EXPECT_EQ(giveSecondsToDateEvent(&event, c.rule), c.expectedSeconds) << c.rule.type;
    EXPECT_EQ(event.period, c.expectedPeriod) << c.rule.type;
  }
}

TEST(SlmTime, MonthsRuleLandsOnTheStartDayOrTheLastDayOfShorterMonths) {
  ScopedTimeZone zone(kUtc);
  struct Moment {
    int year, month, day, hour, minute = 0;
    AgentTime time() const { return wallClock(year, month, day, hour, minute); }
  };
  struct Case {
    const char* what;
    Moment start;
    int32_t everyMonths;
    Moment now, expected;
  };
  const Case cases[] = {
      {"31 Jan to 28 Feb", {2023, 1, 31, 10}, 1, {2023, 2, 5, 0}, {2023, 2, 28, 10}},
      {"31 Jan to 29 Feb in a leap year", {2024, 1, 31, 10}, 1, {2024, 2, 5, 0}, {2024, 2, 29, 10}},
      {"every 3 months, rounded up", {2023, 3, 15, 10}, 3, {2023, 4, 20, 0}, {2023, 6, 15, 10}},
      {"not yet this month's day", {2023, 1, 15, 10}, 2, {2023, 3, 14, 0}, {2023, 3, 15, 10}},
      {"this month's moment moves on", {2023, 1, 15, 10}, 1, {2023, 3, 15, 10}, {2023, 4, 15, 10}},
      {"December to January", {2023, 12, 10, 8}, 1, {2023, 12, 20, 0}, {2024, 1, 10, 8}},
      {"31 Oct to 31 Jan", {2023, 10, 31, 10}, 1, {2023, 12, 31, 12}, {2024, 1, 31, 10}},
      {"30 Nov to 29 Feb", {2023, 11, 30, 10}, 1, {2024, 1, 31, 9}, {2024, 2, 29, 10}},
      {"31 Aug to 30 Sep", {2022, 8, 31, 23, 59}, 1, {2022, 9, 1, 0}, {2022, 9, 30, 23, 59}},
      {"yearly from years back", {2019, 5, 20, 6}, 12, {2023, 6, 1, 0}, {2024, 5, 20, 6}},
  };
  for (const Case& c : cases) {
    FakeClock clock(c.now.time());
    CalendarEvent event{c.start.time(), 0, 0};
    EXPECT_EQ(giveSecondsToDateEvent(&event, {kDateRuleMonths, c.everyMonths}),
              c.expected.time() - c.now.time())
        << c.what;
  }
}

TEST(SlmTime, MonthsRuleKeepsTheWallClockHourAcrossDaylightSaving) {
  ScopedTimeZone zone(kCentralEurope);
  AgentTime winterStart = wallClock(2023, 1, 15, 10);
  AgentTime now = wallClock(2023, 4, 20, 0);
  FakeClock clock(now);
  CalendarEvent event{winterStart, 0, 0};
  // 3 months passed plus this month's day: 4, rounded up to 6 -> 15 July, 10:00 summer time.
  EXPECT_EQ(giveSecondsToDateEvent(&event, {kDateRuleMonths, 3}), wallClock(2023, 7, 15, 10) - now);
  // The zone is really in force: summer 10:00 is an hour short of 181 whole days after winter
  // 10:00.
  ASSERT_EQ(wallClock(2023, 7, 15, 10) - winterStart, 181 * kDay - 3600);
}

TEST(SlmTime, TimeZoneCorrectionMakesLocalTimesUniversal) {
  struct Case {
    const char* zone;
    AgentTime now;
    int32_t expectedShift;
  };
  const AgentTime january = 1673776800;  // 15 Jan 2023, 10:00 UTC
  const AgentTime july = 1689415200;     // 15 Jul 2023, 10:00 UTC
  const Case cases[] = {{kUtc, january, 0},
                        {kUsEastern, january, 5 * 3600},
                        {kUsEastern, july, 4 * 3600},
                        {kCentralEurope, january, -3600},
                        {kCentralEurope, july, -7200},
                        {kJapan, july, -9 * 3600}};
  for (const Case& c : cases) {
    ScopedTimeZone zone(c.zone);
    FakeClock clock(c.now);
    AgentTime localTime = 1000000000;
    correctWithTimeZone(&localTime);
    EXPECT_EQ(localTime, 1000000000 + c.expectedShift) << c.zone << " at " << c.now;
  }
}

TEST(SlmTime, RandDrawsTwoValuesAndKeepsTheFirstBelowPositiveBounds) {
  srand(12345);
  int first = rand();
  rand();
  int third = rand();
  rand();
  int fifth = rand();
  srand(12345);
  EXPECT_EQ(slm_rand(1000), first % 1000);
  EXPECT_EQ(slm_rand(77), third % 77);
  EXPECT_EQ(rand(), fifth);

  for (int32_t bound : {1, 7, 1000, INT_MAX}) {
    bool seen[7] = {};
    for (int i = 0; i < 2000; ++i) {
      int32_t value = slm_rand(bound);
      ASSERT_GE(value, 0) << "bound " << bound;
      ASSERT_LT(value, bound);
      if (bound == 7) seen[value] = true;
    }
    for (int v = 0; bound == 7 && v < 7; ++v) EXPECT_TRUE(seen[v]) << v << " never drawn below 7";
  }
  EXPECT_EQ(slm_rand(0), 0);

  // A negative bound divides the combined draw as unsigned numbers.
  for (int32_t bound : {-1, -1000, INT_MIN}) {
    srand(99);
    uint64_t high = static_cast<uint64_t>(rand());
    uint32_t combined = static_cast<uint32_t>(high * 60 + static_cast<uint64_t>(rand()) % 60);
    srand(99);
    EXPECT_EQ(static_cast<uint32_t>(slm_rand(bound)), combined % static_cast<uint32_t>(bound))
        << "bound " << bound;
  }
}

TEST(SlmTime, TracesTheDateEventAndTheZoneCorrection) {
  test::TempDir dir;
  std::string path = dir.file("traceagt.log");
  startTrace(path.c_str());
  setTraceLevel(3);
  {
    ScopedTimeZone zone(kJapan);
    FakeClock clock(200000);
    for (DateRule rule : {DateRule{kDateRuleDays, 2}, {kDateRuleWeeks, 3}, {kDateRuleMonths, 1}}) {
      CalendarEvent event{100000, 0, 0};
      (void)giveSecondsToDateEvent(&event, rule);
    }
    AgentTime local = 0;
    correctWithTimeZone(&local);
  }
  stopTrace();
  setTraceLevel(-1);
  std::string trace = test::readFile(path);
  for (const char* expected : {
           "SLMTIME - Date event start 100000, end 0, per 0;   type 1, value 2\n",
           "SLMTIME - Days interval 2\n",
           "SLMTIME - Weeks interval 3\n",
           // 100000 and 200000 seconds after the epoch both fall in January 1970 in Japan.
           " *** months diff1 0, cur_m 0, start_m 0\n",
           "SLMTIME - Timezone -32400, daylight 0\n",
       }) {
    EXPECT_NE(trace.find(expected), std::string::npos) << expected << "\nin\n" << trace;
  }
}

}  // namespace
}  // namespace slm
