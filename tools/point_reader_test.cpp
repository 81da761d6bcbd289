#include "tools/point_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>

namespace {

using gfit::cli::PointTable;
using gfit::cli::read_points;
using namespace std::string_literals;

TEST(PointReader, WhitespaceCommasCommentsAndBlankLines) {
  std::istringstream in("# header\n1 2 3\n\n4,5,6  # trailing\n  7 ,8, 9\n");
  PointTable t;
  std::string error;
  ASSERT_TRUE(read_points(in, 3, t, error)) << error;
  ASSERT_EQ(t.rows(), 3);
  EXPECT_EQ(t.values[4], 5.0);
  EXPECT_EQ(t.source_lines[2], 5);
}

TEST(PointReader, NamesTheMalformedLine) {
  PointTable t;
  std::string error;
  std::istringstream bad_number("1 2 3\n4 five 6\n");
  EXPECT_FALSE(read_points(bad_number, 3, t, error));
  EXPECT_NE(error.find("line 2"), std::string::npos);
  EXPECT_NE(error.find("five"), std::string::npos);
  std::istringstream short_row("1 2 3\n4 5\n");
  EXPECT_FALSE(read_points(short_row, 3, t, error));
  EXPECT_NE(error.find("line 2"), std::string::npos);
  std::istringstream not_finite("1 2 nan\n");
  EXPECT_FALSE(read_points(not_finite, 3, t, error));
  std::istringstream overflow("1 2 1e999\n");
  EXPECT_FALSE(read_points(overflow, 3, t, error));
}

TEST(PointReader, TakesTheColumnCountFromTheFirstPointWhenAsked) {
  PointTable t;
  std::string error;
  std::istringstream flat("1 2\n3 4\n");
  ASSERT_TRUE(read_points(flat, 0, t, error));
  EXPECT_EQ(t.columns, 2);
  EXPECT_EQ(t.rows(), 2);
  std::istringstream mixed("1 2\n3 4 5\n");
  EXPECT_FALSE(read_points(mixed, 0, t, error));
  std::istringstream four("1 2 3 4\n");
  EXPECT_FALSE(read_points(four, 0, t, error));
  std::istringstream with_radius("1 2 3 0.5\n4 5 6 0.5\n");
  ASSERT_TRUE(read_points(with_radius, 3, t, error, 4));  // an optional fourth column
  EXPECT_EQ(t.columns, 4);
  std::istringstream without("1 2 3\n");
  ASSERT_TRUE(read_points(without, 3, t, error, 4));
  EXPECT_EQ(t.columns, 3);
}

// Input the reader must refuse, with the place it must name.
TEST(PointReader, RefusesWithLineAndColumn) {
  struct Case {
    std::string input;
    char const* message;
  };
  const Case cases[] = {
      {"1 2 3\n1\0garbage 2 3\n"s, "line 2, column 2: a NUL byte"},
      {"1 2 3 # a \0 in a comment\n"s, "line 1, column 11: a NUL byte"},
      {"1 2 3\n" + std::string(300, '7') + " 1 2\n", "line 2, column 257: a field longer than 256"},
      {"1 2 3\r\n4 5 6 7\r\n", "line 2: expected 3 coordinates, found 4"},
      {"1 2 3\n4 5 0x\n", "line 2: '0x' is not a finite number"},
      {"1 2 3\n4 5 \x01\n", "line 2: '\\x01' is not a finite number"},
      {"1 2 3\n4 5 -1e309", "line 2: '-1e309' is not a finite number"},
  };
  for (Case const& c : cases) {
    std::istringstream in(c.input);
    PointTable t;
    std::string error;
    EXPECT_FALSE(read_points(in, 3, t, error)) << c.message;
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    EXPECT_EQ(t.rows(), 0);
  }
}

TEST(PointReader, KeepsSubnormalsAndExactValues) {
  std::istringstream in("1e-310 -4.9e-324 1e-400\n0x1.8p1 2.5e+300 -0\n");
  PointTable t;
  std::string error;
  ASSERT_TRUE(read_points(in, 3, t, error)) << error;
  EXPECT_EQ(t.values[0], std::strtod("1e-310", nullptr));
  EXPECT_EQ(std::fpclassify(t.values[0]), FP_SUBNORMAL);
  EXPECT_EQ(t.values[1], -std::strtod("4.9e-324", nullptr));
  EXPECT_EQ(t.values[2], 0.0);
  EXPECT_EQ(t.values[3], 3.0);
  EXPECT_EQ(t.values[4], 2.5e300);
  EXPECT_TRUE(std::signbit(t.values[5]));
}

// Many points cross the reader's blocks; a long line of too many values is counted, not held.
TEST(PointReader, LargeInputsKeepEveryValueAndLine) {
  std::string text = "# header\n";
  const int n = 200000;
  for (int i = 0; i < n; ++i) text += std::to_string(i) + "," + std::to_string(-i) + (i % 1000 == 0 ? "\n\n" : "\n");
  std::istringstream in(text);
  PointTable t;
  std::string error;
  ASSERT_TRUE(read_points(in, 0, t, error)) << error;
  ASSERT_EQ(t.rows(), n);
  long long line = 2;
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(t.values[2 * i], i);
    ASSERT_EQ(t.values[2 * i + 1], -i);
    ASSERT_EQ(t.source_lines[i], line) << i;
    line += i % 1000 == 0 ? 2 : 1;
  }
  std::string wide = "1 2 3\n";
  for (int i = 0; i < 1000000; ++i) wide += "1 ";
  std::istringstream long_line(wide);
  EXPECT_FALSE(read_points(long_line, 3, t, error));
  EXPECT_NE(error.find("line 2: expected 3 coordinates, found 1000000"), std::string::npos) << error;
}

}  // namespace
