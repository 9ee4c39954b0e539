#include "core/time.h"

#include <gtest/gtest.h>

namespace quorvel {
namespace {

TEST(Duration, ConstructorsScaleToMicroseconds) {
  EXPECT_EQ(Duration::seconds(1).count(), 1000000);
  EXPECT_EQ(Duration::milliseconds(100).count(), 100000);
  EXPECT_EQ(Duration::seconds(2147483647).count(), int64_t{2147483647} * 1000000);  // 64-bit product
}

TEST(Duration, TextForms) {
  EXPECT_EQ(Duration(-1500000).toString(1), "-00:00:01.500");
  EXPECT_EQ(Duration(90061000001).toString(2), "25:01:01.000001");
  EXPECT_EQ(Duration(90061000001).toString(0), "25:01:01");
  EXPECT_EQ(Duration::seconds(100 * 3600).toString(0), "100:00:00");
  EXPECT_EQ(Duration(1999).toString(1), "00:00:00.001");  // truncated, not rounded
  EXPECT_EQ(Duration(0).toString(1), "00:00:00.000");
  EXPECT_EQ(MaxDuration.toString(1), "MaxDuration");
  EXPECT_EQ(MinDuration.toString(0), "MinDuration");
  EXPECT_EQ((MinDuration + Duration(1)).toString(2), "-2562047788:00:54.775807");
}

TEST(Duration, ArithmeticWrapsWithoutSaturating) {
  EXPECT_EQ(MaxDuration + Duration(1), MinDuration);
  EXPECT_EQ(MinDuration - Duration(1), MaxDuration);
  EXPECT_LT(Duration(-1), Duration(0));
}

TEST(Time, TextForms) {
  EXPECT_EQ(Time(0).toString(1), "MinTime");
  EXPECT_EQ(MaxTime.toString(0), "MaxTime");
  EXPECT_EQ(Time(1000000).toString(0), "1970-01-01 00:00:01");
  EXPECT_EQ(Time::fromUnixSeconds(951782400).toString(0), "2000-02-29 00:00:00");  // leap day
  EXPECT_EQ(Time(1394183702318000).toString(1), "2014-03-07 09:15:02.318");
  EXPECT_EQ(Time(1394183702318999).toString(2), "2014-03-07 09:15:02.318999");
  EXPECT_EQ(Time::fromUnixSeconds(2147483647).toString(0), "2038-01-19 03:14:07");
  EXPECT_EQ(Time(uint64_t{4102444799} * 1000000).toString(0), "2099-12-31 23:59:59");
  // A century year that is no leap year: its February ends on the 28th.
  EXPECT_EQ(Time(uint64_t{4107456000} * 1000000).toString(0), "2100-02-28 00:00:00");
  EXPECT_EQ(Time(uint64_t{4107542400} * 1000000).toString(0), "2100-03-01 00:00:00");
}

TEST(Time, LargestValuesFitTheCallersBuffer) {
  char buffer[TimeTextSize];
  const char* text = Time(MaxTime.count() - 1).toString(buffer, 2);
  EXPECT_EQ(text, buffer);
  EXPECT_LT(std::char_traits<char>::length(buffer), TimeTextSize - 1);
  EXPECT_EQ(std::string(buffer).substr(std::string(buffer).size() - 7), ".551614");
}

TEST(Time, ArithmeticWithDurations) {
  const Time t = Time::fromUnixSeconds(10);
  EXPECT_EQ((t + Duration::seconds(5)).count(), 15000000u);
  EXPECT_EQ((t - Duration::seconds(5)).count(), 5000000u);
  EXPECT_EQ((t + Duration::seconds(5)) - t, Duration::seconds(5));
  EXPECT_EQ(t + Duration(-1000000), Time::fromUnixSeconds(9));
}

}  // namespace
}  // namespace quorvel
