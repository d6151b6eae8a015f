#include "agent_core/data/slm_time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "support/fake_clock.h"

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
AgentTime wallClock(int year, int month, int day, int hour) {
  tm fields{};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_isdst = -1;
  return static_cast<AgentTime>(mktime(&fields));
}

TEST(SlmTime, ReplacedClockDrivesNowAndSystemClockReturnsAfterwards) {
  {
    FakeClock clock(1000);
    clock.advance(59);
    EXPECT_EQ(getNowWithOffset(-30), 1029);
  }
  EXPECT_GE(getNowWithOffset(5), time(nullptr) + 4);
}

TEST(SlmTime, CompareAgentTimeAndServerTimeStrings) {
  EXPECT_EQ(compareAgentTime(5, 5), kAgentTimesEqual);
  EXPECT_EQ(compareAgentTime(6, 5), kAgentTimeLater);
  EXPECT_EQ(compareAgentTime(INT_MIN, INT_MAX), kAgentTimeEarlier);  // signed, no wrap
  const std::pair<const char*, AgentTime> cases[] = {
      {"1999", 1},      {"-1999", -1}, {"-2147483648000", INT_MIN},
      {"12345xyz", 12}, {"-", 0},      {nullptr, 0}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(serverTimeStringtoAgentTime(text), expected);
}

TEST(SlmTime, SecondsToEventFollowPeriodsAndEnds) {
  struct Case {
    CalendarEvent event;
    AgentTime now;
    int32_t expected;
  };
  const Case cases[] = {
      {{1000, 0, 60}, 1130, 50},
      {{1000, 0, 60}, 1180, 0},   // exactly on an occurrence
      {{1000, 0, 60}, 900, 100},  // before the start
      {{1000, 1100, 0}, 1101, kNoOccurrence},
      {{1000, 1100, 0}, 1100, 0},               // the end itself still counts
      {{1000, 1150, 60}, 1130, kNoOccurrence},  // next would be 1180
      {{1000, 0, -5}, 2000, 0},                 // a one-shot event that passed is due now
  };
  for (const Case& c : cases) {
    FakeClock clock(c.now);
    EXPECT_EQ(giveSecondsToEvent(c.event), c.expected) << c.event.start << " " << c.now;
  }
}

TEST(SlmTime, DateRulesSetThePeriodAndCountFromTheStart) {
  const AgentTime start = 1000000;
  FakeClock clock(start + kDay + 100);
  for (int32_t type : {kDateRuleOnce, kDateRuleMonths, 9}) {  // before the start: wait for it
    CalendarEvent future{start + kDay + 800, 0, 0};
    EXPECT_EQ(giveSecondsToDateEvent(&future, {type, 2}), 700) << "type " << type;
  }
  struct Case {
    DateRule rule;
    AgentTime end;
    int32_t period;  // before and after
    int32_t expectedSeconds;
    int32_t expectedPeriod;
  };
  const Case cases[] = {
      {{kDateRuleDays, 2}, 0, 0, kDay - 100, 2 * kDay},
      {{kDateRuleWeeks, 3}, 0, 0, 20 * kDay - 100, 21 * kDay},
      // The event's end still applies once the period comes from the rule.
      {{kDateRuleDays, 2}, start + kDay + 200, 0, kNoOccurrence, 2 * kDay},
      // Once and unknown rules have no occurrence after the start and keep the period.
      {{kDateRuleOnce, 1}, 0, 3600, kNoOccurrence, 3600},
      {{4, 1}, 0, 3600, kNoOccurrence, 3600},
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
    int year, month, day, hour;
    AgentTime time() const { return wallClock(year, month, day, hour); }
  };
  struct Case {
    const char* what;
    Moment start;
    int32_t everyMonths;
    Moment now, expected;
  };
  const Case cases[] = {
      {"31 Jan to 28 Feb", {2023, 1, 31, 10}, 1, {2023, 2, 5, 0}, {2023, 2, 28, 10}},
      {"every 3 months, rounded up", {2023, 3, 15, 10}, 3, {2023, 4, 20, 0}, {2023, 6, 15, 10}},
      {"not yet this month's day", {2023, 1, 15, 10}, 2, {2023, 3, 14, 0}, {2023, 3, 15, 10}},
      {"this month's moment moves on", {2023, 1, 15, 10}, 1, {2023, 3, 15, 10}, {2023, 4, 15, 10}},
      {"December to January", {2023, 12, 10, 8}, 1, {2023, 12, 20, 0}, {2024, 1, 10, 8}},
      {"30 Nov to 29 Feb", {2023, 11, 30, 10}, 1, {2024, 1, 31, 9}, {2024, 2, 29, 10}},
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
  ASSERT_EQ(wallClock(2023, 7, 15, 10) - winterStart, 181 * kDay - 3600);
}

TEST(SlmTime, TimeZoneCorrectionMakesLocalTimesUniversal) {
  const AgentTime january = 1673776800;  // 15 Jan 2023, 10:00 UTC
  const AgentTime july = 1689415200;     // 15 Jul 2023, 10:00 UTC
  const struct {
    const char* zone;
    AgentTime now;
    int32_t expectedShift;
  } cases[] = {{kUsEastern, january, 5 * 3600},
               {kUsEastern, july, 4 * 3600},
               {kCentralEurope, july, -7200},
               {kJapan, july, -9 * 3600}};
  for (const auto& c : cases) {
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
  srand(12345);
  EXPECT_EQ(slm_rand(1000), first % 1000);
  EXPECT_EQ(rand(), third);
  bool seen[7] = {};
  for (int i = 0; i < 2000; ++i) {
    int32_t value = slm_rand(7);
    ASSERT_TRUE(value >= 0 && value < 7) << value;
    seen[value] = true;
  }
  EXPECT_EQ(std::count(seen, seen + 7, true), 7);
  EXPECT_EQ(slm_rand(0), 0);
  srand(99);
  uint64_t high = static_cast<uint64_t>(rand());
  uint32_t combined = static_cast<uint32_t>(high * 60 + static_cast<uint64_t>(rand()) % 60);
  srand(99);
  EXPECT_EQ(static_cast<uint32_t>(slm_rand(-1000)), combined % static_cast<uint32_t>(-1000));
}

}  // namespace
}  // namespace slm
