#include "KivFramework/KivStringHelper.h"

#include "tests/support/fake_time.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <locale>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace KivFramework::KivStringHelper;
using kiv_test::time_zone;

constexpr int time_of_day = 0;
constexpr int date = 1;
constexpr int date_and_time = 2;
constexpr int file_name = 3;

constexpr long march_2024 = 1709647629; // 5 March 2024, 14:07:09 UTC
constexpr long seconds_of_a_day = 86400;

// The form, as the C library writes it.
std::string expected_form(long seconds, int mode) {
    const std::time_t clock = seconds;
    std::tm time{};
    ::tzset(); // not part of localtime_r
    ::localtime_r(&clock, &time);
    const char* const form = mode == time_of_day ? "%H:%M:%S"
                             : mode == date      ? "%m/%d/%Y"
                             : mode == file_name ? "%m%d%Y%H%M%S"
                                                 : "%m/%d/%Y %H:%M:%S";
    char text[80] = "";
    std::strftime(text, sizeof(text), form, &time);
    return text;
}

TEST(FormatTime, WritesTheTimeOfDayInMode0) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(march_2024, time_of_day), "14:07:09");
}

TEST(FormatTime, WritesTheDateMonthFirstInMode1) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(march_2024, date), "03/05/2024");
}

TEST(FormatTime, WritesBothWithoutSeparatorsInMode3) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(march_2024, file_name), "03052024140709");
}

TEST(FormatTime, WritesDateAndTimeInEveryOtherMode) {
    const time_zone utc("UTC0");
    for (const int mode : {date_and_time, 4, 7, -1, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(FormatTime(march_2024, mode), "03/05/2024 14:07:09");
    }
}

TEST(FormatTime, CountsHoursFrom0To23) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(0, date_and_time), "01/01/1970 00:00:00");
    EXPECT_EQ(FormatTime(seconds_of_a_day - 1, date_and_time), "01/01/1970 23:59:59");
}

TEST(FormatTime, WritesTimesBeforeTheEpoch) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(-1, date_and_time), "12/31/1969 23:59:59");
}

TEST(FormatTime, FollowsAChangedTimeZone) {
    {
        const time_zone east("EAST-5:30");
        EXPECT_EQ(FormatTime(march_2024, date_and_time), "03/05/2024 19:37:09");
    }
    const time_zone west("WEST8");
    EXPECT_EQ(FormatTime(march_2024, date_and_time), "03/05/2024 06:07:09");
    {
        const time_zone utc("UTC0");
        EXPECT_EQ(FormatTime(march_2024, date_and_time), "03/05/2024 14:07:09");
    }
    EXPECT_EQ(FormatTime(march_2024, date_and_time), "03/05/2024 06:07:09");
}

TEST(FormatTime, KnowsSummerTimeOnBothSidesOfItsChanges) {
    const time_zone central("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(FormatTime(1711846799, date_and_time), "03/31/2024 01:59:59");
    EXPECT_EQ(FormatTime(1711846800, date_and_time), "03/31/2024 03:00:00");
    EXPECT_EQ(FormatTime(1729990799, date_and_time), "10/27/2024 02:59:59");
    EXPECT_EQ(FormatTime(1729990800, date_and_time), "10/27/2024 02:00:00");
}

TEST(FormatTime, KnowsTheLeapDay) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(1709164800, date), "02/29/2024");
    EXPECT_EQ(FormatTime(1709164800 + seconds_of_a_day, date), "03/01/2024");
}

// A long of 32 bits has no such times.
#if LONG_MAX > INT_MAX

TEST(FormatTime, WritesTimesBeyondA32BitClock) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(2147483648, date_and_time), "01/19/2038 03:14:08");
}

TEST(FormatTime, FillsTheYearToFourPlacesAndWritesLongerOnesWhole) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(-62135596800, date), "01/01/0001");
    EXPECT_EQ(FormatTime(-62135596801, date), "12/31/0000");
    EXPECT_EQ(FormatTime(-62167219201, date), "12/31/-001");
    EXPECT_EQ(FormatTime(253402300800, date_and_time), "01/01/10000 00:00:00");
    EXPECT_EQ(FormatTime(253402300800, file_name), "010110000000000");
}

TEST(FormatTime, WritesEveryYearThatTheCLibraryKnows) {
    const time_zone utc("UTC0");
    EXPECT_EQ(FormatTime(67768036191676799, date_and_time), "12/31/2147485547 23:59:59");
    EXPECT_EQ(FormatTime(-67768040609740800, date_and_time), "01/01/-2147481748 00:00:00");
}

TEST(FormatTime, GivesTheEmptyTextBeyondTheYearsOfTheCLibrary) {
    const time_zone utc("UTC0");
    for (const int mode : {time_of_day, date, date_and_time, file_name}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(FormatTime(67768036191676800, mode), "");
        EXPECT_EQ(FormatTime(-67768040609740801, mode), "");
        EXPECT_EQ(FormatTime(LONG_MAX, mode), "");
        EXPECT_EQ(FormatTime(LONG_MIN, mode), "");
    }
}

#endif

TEST(FormatTime, EqualsTheCLibrarysFormsOverManyYears) {
    constexpr long step = 9999991; // about four months, so that it falls on every time of day
    constexpr long last =          // well into the next century, where a long goes so far
        static_cast<long>(std::min<long long>(8'000'000'000, LONG_MAX - step));
    const time_zone central("CET-1CEST,M3.5.0,M10.5.0/3");
    for (long seconds = 0; seconds < last; seconds += step) {
        for (const int mode : {time_of_day, date, date_and_time, file_name}) {
            ASSERT_EQ(FormatTime(seconds, mode), expected_form(seconds, mode)) << seconds;
        }
    }
}

TEST(FormatTime, LeavesTheSharedResultOfTheCLibraryAlone) {
    const time_zone utc("UTC0");
    const std::time_t epoch = 0;
    const std::tm* const shared = std::localtime(&epoch); // NOLINT(concurrency-mt-unsafe): alone
    FormatTime(march_2024, date_and_time);
    EXPECT_EQ(shared->tm_year, 70);
}

TEST(FormatTime, MayRunInManyThreadsAtOnce) {
    const time_zone utc("UTC0");
    constexpr int days = 2000;
    std::vector<int> right(4);
    std::vector<std::thread> threads;
    threads.reserve(right.size());
    for (int& count : right) {
        threads.emplace_back([&count] {
            for (long day = 0; day < days; ++day) {
                count += FormatTime(day * seconds_of_a_day + 3661, time_of_day) == "01:01:01";
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, std::vector<int>(4, days));
}

TEST(FormatTimespan, WritesAllFourPartsInThePlural) {
    EXPECT_EQ(FormatTimespan(90061), "1 days, 1 hours, 1 mins, 1 secs");
    EXPECT_EQ(FormatTimespan(0), "0 days, 0 hours, 0 mins, 0 secs");
    EXPECT_EQ(FormatTimespan(59), "0 days, 0 hours, 0 mins, 59 secs");
    EXPECT_EQ(FormatTimespan(60), "0 days, 0 hours, 1 mins, 0 secs");
    EXPECT_EQ(FormatTimespan(3599), "0 days, 0 hours, 59 mins, 59 secs");
    EXPECT_EQ(FormatTimespan(3600), "0 days, 1 hours, 0 mins, 0 secs");
    EXPECT_EQ(FormatTimespan(86399), "0 days, 23 hours, 59 mins, 59 secs");
    EXPECT_EQ(FormatTimespan(86400), "1 days, 0 hours, 0 mins, 0 secs");
    EXPECT_EQ(FormatTimespan(200 * seconds_of_a_day + 2L * 3600 + 3L * 60 + 4),
              "200 days, 2 hours, 3 mins, 4 secs");
}

TEST(FormatTimespan, GivesTheEmptyTextForANegativeDuration) {
    EXPECT_EQ(FormatTimespan(-1), "");
    EXPECT_EQ(FormatTimespan(-90061), "");
    EXPECT_EQ(FormatTimespan(LONG_MIN), "");
}

// Nor are so many days counted by a long of 32 bits.
#if LONG_MAX > INT_MAX

TEST(FormatTimespan, CountsDaysIn32BitsAndStartsAgainAtZero) {
    constexpr long most_days = UINT_MAX;
    EXPECT_EQ(FormatTimespan(most_days * seconds_of_a_day + seconds_of_a_day - 1),
              "4294967295 days, 23 hours, 59 mins, 59 secs");
    EXPECT_EQ(FormatTimespan((most_days + 1) * seconds_of_a_day + 1),
              "0 days, 0 hours, 0 mins, 1 secs");
    // 106751991167300 days, less 24855 times 2^32.
    EXPECT_EQ(FormatTimespan(LONG_MAX), "579025220 days, 15 hours, 30 mins, 7 secs");
}

#endif

// Groups every digit, where national locales group three.
class grouping_punctuation : public std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\1"; }
};

TEST(TimeTexts, DoNotChangeWithTheGlobalCppLocale) {
    const time_zone utc("UTC0");
    const std::locale previous =
        std::locale::global(std::locale(std::locale(), new grouping_punctuation));
    EXPECT_EQ(FormatTime(march_2024, date_and_time), "03/05/2024 14:07:09");
    EXPECT_EQ(FormatTimespan(12345 * seconds_of_a_day), "12345 days, 0 hours, 0 mins, 0 secs");
    std::locale::global(previous);
}

} // namespace
