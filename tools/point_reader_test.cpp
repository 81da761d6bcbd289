#include "tools/point_reader.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using gfit::cli::PointTable;
using gfit::cli::read_points;

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

}  // namespace
