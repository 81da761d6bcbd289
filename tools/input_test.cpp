#include "tools/input.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gfit/gfit.h"

namespace {

using gfit::cli::Input;
using gfit::cli::InputOptions;
using gfit::cli::read_input;
using namespace std::string_literals;

// A file of its own for each test: tests run in parallel, one process each.
class TempFile {
 public:
  TempFile(std::string const& name, std::string const& content) {
    static int counter = 0;
    path_ = (std::filesystem::temp_directory_path() /
             ("gfit_input_" + std::to_string(::getpid()) + "_" + std::to_string(counter++) + "_" + name))
                .string();
    std::ofstream(path_, std::ios::binary) << content;
  }
  ~TempFile() { std::remove(path_.c_str()); }
  std::string const& path() const { return path_; }

 private:
  std::string path_;
};

// 60 points on a partial cylinder of radius 12 far from the origin, with a little noise, and
// their radial unit normals; awkward doubles on purpose.
struct Cloud {
  std::vector<double> points, normals;
};

Cloud cylinder_cloud(bool float_rounded) {
  Cloud c;
  std::uint64_t state = 12345;
  auto noise = [&] {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return (static_cast<double>(state >> 11) / 9007199254740992.0 - 0.5) * 2e-3;
  };
  const double ax[3] = {0.36, -0.48, 0.8}, u[3] = {0.8, 0.6, 0.0}, w[3] = {-0.48, 0.64, 0.6};
  for (int i = 0; i < 60; ++i) {
    const double t = 0.05 * i, h = 3.7 * (i % 7) - 11.1, r = 12.0 + noise();
    double n[3], p[3];
    for (int k = 0; k < 3; ++k) {
      n[k] = std::cos(t) * u[k] + std::sin(t) * w[k];
      p[k] = (k == 0 ? 1234.5678 : k == 1 ? -876.54321 : 345.6789) + h * ax[k] + r * n[k];
    }
    for (int k = 0; k < 3; ++k) {
      c.points.push_back(float_rounded ? static_cast<double>(static_cast<float>(p[k])) : p[k]);
      c.normals.push_back(float_rounded ? static_cast<double>(static_cast<float>(n[k])) : n[k]);
    }
  }
  return c;
}

std::string g17(double v) {
  char b[40];
  std::snprintf(b, sizeof b, "%.17g", v);
  return b;
}

// Rows of the cloud: a name column first if `name`, the normals after the point if `normals`.
std::string rows(Cloud const& c, char const* sep, bool normals, bool name, bool decimal_comma) {
  std::string out;
  for (size_t i = 0; i < c.points.size() / 3; ++i) {
    if (name) out += "P" + std::to_string(i + 1) + sep;
    for (int k = 0; k < (normals ? 6 : 3); ++k) {
      std::string v = g17(k < 3 ? c.points[3 * i + k] : c.normals[3 * i + k - 3]);
      if (decimal_comma)
        for (char& ch : v)
          if (ch == '.') ch = ',';
      out += (k ? sep : "") + v;
    }
    out += "\n";
  }
  return out;
}

enum class Binary { ascii, little, big };

// A PLY file of the cloud with a skipped element before the vertices (a list), a skipped colour
// property between the coordinates, and faces after them.
std::string ply(Cloud const& c, Binary format, bool normals, bool as_float) {
  const char* type = as_float ? "float" : "double";
  std::string out = "ply\nformat "s +
                    (format == Binary::ascii ? "ascii" : format == Binary::little ? "binary_little_endian"
                                                                                    : "binary_big_endian") +
                    " 1.0\ncomment written by a test\nelement camera 1\nproperty list uchar int ids\n";
  const size_t n = c.points.size() / 3;
  out += "element vertex " + std::to_string(n) + "\nproperty " + type + " x\nproperty " + type +
         " y\nproperty uchar red\nproperty " + type + " z\n";
  if (normals) out += "property "s + type + " nx\nproperty " + type + " ny\nproperty " + type + " nz\n";
  out += "element face 1\nproperty list uchar int vertex_indices\nend_header\n";
  const bool little_host = [] {
    const std::uint16_t one = 1;
    unsigned char b[2];
    std::memcpy(b, &one, 2);
    return b[0] == 1;
  }();
  auto put = [&](auto value) {
    char b[sizeof value];
    std::memcpy(b, &value, sizeof value);
    if (little_host != (format == Binary::little)) std::reverse(b, b + sizeof value);
    out.append(b, sizeof value);
  };
  auto value = [&](double v) {
    if (format == Binary::ascii)
      out += g17(as_float ? static_cast<double>(static_cast<float>(v)) : v) + " ";
    else if (as_float)
      put(static_cast<float>(v));
    else
      put(v);
  };
  if (format == Binary::ascii) {
    out += "2 7 9\n";
  } else {
    put(std::uint8_t{2});
    put(std::int32_t{7});
    put(std::int32_t{9});
  }
  for (size_t i = 0; i < n; ++i) {
    value(c.points[3 * i]);
    value(c.points[3 * i + 1]);
    if (format == Binary::ascii)
      out += "200 ";
    else
      put(std::uint8_t{200});
    value(c.points[3 * i + 2]);
    if (normals)
      for (int k = 0; k < 3; ++k) value(c.normals[3 * i + k]);
    if (format == Binary::ascii) out += "\n";
  }
  if (format == Binary::ascii) {
    out += "3 0 1 2\n";
  } else {
    put(std::uint8_t{3});
    for (std::int32_t k = 0; k < 3; ++k) put(k);
  }
  return out;
}

struct Fit {
  int status;
  double values[8];
};

// The library's cylinder through the points, guided by the normals when there are any.
Fit cylinder(std::vector<double> const& p, std::vector<double> const& normals) {
  const int n = static_cast<int>(p.size() / 3);
  giPoint3coDynArr points(n, 16);
  for (int i = 0; i < n; ++i) points.append(giPoint3(p[3 * i], p[3 * i + 1], p[3 * i + 2]));
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  Fit f{};
  if (normals.empty()) {
    f.status = gfLeastSquareEvaluator::evaluate_cylinder(points, point, direction, radius, residual, giUnitVec3(),
                                                         giAngle::from_degrees(10), 0);
  } else {
    giUnitVec3coDynArr ns(n, 16);
    for (int i = 0; i < n; ++i) ns.append(giUnitVec3(normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]));
    f.status = gfLeastSquareEvaluator::evaluate_cylinder(points, ns, giAngle::from_degrees(10), point, direction,
                                                         radius, residual, 0);
  }
  const double v[8] = {point.x(), point.y(), point.z(), direction.x(), direction.y(), direction.z(), radius, residual};
  std::memcpy(f.values, v, sizeof v);
  return f;
}

bool same_bits(std::vector<double> const& a, std::vector<double> const& b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

// Every format gives the plain text file's doubles to the last bit, and so the same fit.
TEST(Input, EveryFormatGivesThePlainTextValuesAndFit) {
  const Cloud exact = cylinder_cloud(false), rounded = cylinder_cloud(true);
  struct Case {
    char const* name;  // the file name: its extension plays its part in the detection
    std::string content;
    bool normals, float_rounded;
    char const* columns;
  };
  const Case cases[] = {
      {"plain.xyz", rows(exact, " ", false, false, false), false, false, ""},
      {"cmm.txt", "Tue Nov 17 10:02:11 2026\nPOINT,X,Y,Z,I,J,K\n" + rows(exact, ",", true, true, false), true, false,
       ""},
      {"cmm_by_number.dat", "Tue Nov 17 10:02:11 2026\nPOINT,X,Y,Z,I,J,K\n" + rows(exact, ",", true, true, false),
       true, false, "2,3,4,5,6,7"},
      {"header.csv", "x,y,z\n" + rows(exact, ",", false, false, false), false, false, ""},
      {"headerless.csv", rows(exact, ",", true, false, false), true, false, ""},
      {"comma.txt", "\xef\xbb\xbf\"X\";\"Y\";\"Z\"\n" + rows(exact, ";", false, false, true), false, false, ""},
      {"comma_headerless.txt", rows(exact, ";", false, false, true), false, false, ""},
      {"normals.tsv", "id\tX\tY\tZ\tNX\tNY\tNZ\n" + rows(exact, "\t", true, true, false), true, false,
       "X,Y,Z,NX,NY,NZ"},
      {"ascii.ply", ply(exact, Binary::ascii, false, false), false, false, ""},
      {"ascii_normals.ply", ply(exact, Binary::ascii, true, false), true, false, ""},
      {"le.ply", ply(exact, Binary::little, false, false), false, false, ""},
      {"le_normals.bin", ply(exact, Binary::little, true, false), true, false, ""},
      {"be.ply", ply(exact, Binary::big, false, false), false, false, ""},
      {"be_normals.ply", ply(exact, Binary::big, true, false), true, false, ""},
      {"le_float.ply", ply(exact, Binary::little, true, true), true, true, ""},
      {"be_float.ply", ply(exact, Binary::big, false, true), false, true, ""},
      {"ascii_float.ply", ply(exact, Binary::ascii, false, true), false, true, ""},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    Cloud const& want = c.float_rounded ? rounded : exact;
    TempFile plain("plain.xyz", rows(want, " ", false, false, false)), file(c.name, c.content);
    Input reference, input;
    std::string error;
    ASSERT_TRUE(read_input(plain.path(), InputOptions{}, 3, 3, reference, error)) << error;
    ASSERT_TRUE(read_input(file.path(), InputOptions{"auto", c.columns}, 3, 3, input, error)) << error;
    EXPECT_EQ(input.points.columns, 3);
    EXPECT_TRUE(same_bits(input.points.values, reference.points.values));
    EXPECT_TRUE(same_bits(input.points.values, want.points));
    if (c.normals) {
      EXPECT_EQ(input.normals.columns, 3);
      EXPECT_TRUE(same_bits(input.normals.values, want.normals));
    } else {
      EXPECT_EQ(input.normals.rows(), 0);
    }
    const Fit a = cylinder(reference.points.values, c.normals ? want.normals : std::vector<double>{});
    const Fit b = cylinder(input.points.values, input.normals.values);
    EXPECT_EQ(a.status, 1);
    EXPECT_EQ(b.status, a.status);
    EXPECT_EQ(std::memcmp(a.values, b.values, sizeof a.values), 0);
    EXPECT_NEAR(b.values[6], 12.0, 1e-3);
  }
}

// Malformed files: each refused, naming where.
TEST(Input, RefusesMalformedFilesNamingTheLineAndColumn) {
  std::string truncated = ply(cylinder_cloud(false), Binary::little, false, false);
  truncated.resize(truncated.find("end_header\n") + 11 + 9 + 25 + 8);  // inside vertex 2
  std::string promising = ply(cylinder_cloud(false), Binary::big, true, false);
  promising.replace(promising.find("vertex 60"), 9, "vertex 2000000000");
  struct Case {
    char const* name;
    std::string content;
    char const* columns;
    char const* message;
  };
  const Case cases[] = {
      {"count.csv", "X,Y,Z\n1,2,3\n4,5\n", "", "line 3: expected 3 fields, found 2"},
      {"word.csv", "POINT,X,Y,Z\nP1,1,2,3\nP2,4,abc,6\n", "", "line 3, column 3 (Y): 'abc' is not a finite number"},
      {"empty.csv", "X;Y;Z\n1;;3\n", "", "line 2, column 2 (Y): no value"},
      {"no_x.csv", "date\nPOINT,Y,Z,I,J,K\nP1,1,2,3,0,0,1\n", "", "line 2: the header names no X column"},
      {"no_header.csv", "Tue Nov 17 10:02:11 2026\n1,2,3\n", "", "line 1, column 1: 'Tue' is not a finite number"},
      {"nul.csv", "X,Y,Z\n1,2\0,3\n"s, "", "line 2, column 4: a NUL byte"},
      {"some_normals.csv", "X,Y,Z,I,J\n1,2,3,0,1\n", "", "line 1: the header has only some of the normal columns"},
      {"unknown_name.csv", "X,Y,Z\n1,2,3\n", "X,Y,W", "line 1: the header has no column named 'W'"},
      {"column_beyond.csv", "1,2,3\n", "1,2,9", "line 1: --columns asks for column 9, the line has 3"},
      {"truncated.ply", truncated, "", "the PLY header promises 60 vertex records; the file ends inside record 2"},
      {"promising.ply", promising, "", "promises 2000000000 vertex records; the file ends inside record 61"},
      {"type.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float128 x\nend_header\n1\n", "",
       "line 4: unknown property type 'float128'"},
      {"no_x.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float y\nproperty float z\nend_header\n1 2\n",
       "", "line 3: the vertex element has no property x"},
      {"word.ply", "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nproperty float y\nproperty float z\n"
                   "end_header\n1 2e3 zz\n", "", "line 8, column 3 (z): 'zz' is not a finite number"},
      {"short.ply", "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
                    "end_header\n1 2 3\n", "", "promises 2 vertex records; the file ends after 1"},
      {"no_end.ply", "ply\nformat ascii 1.0\nelement vertex 2\n", "", "no end_header"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.name);
    TempFile file(c.name, c.content);
    Input input;
    input.points.columns = 9;
    std::string error;
    EXPECT_FALSE(read_input(file.path(), InputOptions{"auto", c.columns}, 3, 3, input, error));
    EXPECT_NE(error.find(c.message), std::string::npos) << error;
    EXPECT_NE(error.find(file.path()), std::string::npos) << error;
    EXPECT_EQ(input.points.rows(), 0);
    EXPECT_EQ(input.normals.rows(), 0);
  }
}

// The detection picks the reader; --format overrides it; the element's column count is kept.
TEST(Input, FormatOverridesAndColumnCounts) {
  TempFile ply_as_text("cloud.txt", ply(cylinder_cloud(false), Binary::ascii, false, false));
  Input input;
  std::string error;
  ASSERT_TRUE(read_input(ply_as_text.path(), InputOptions{}, 3, 3, input, error)) << error;  // by its magic line
  EXPECT_EQ(input.points.rows(), 60);
  EXPECT_FALSE(read_input(ply_as_text.path(), InputOptions{"text", ""}, 3, 3, input, error));
  EXPECT_NE(error.find("line 1: 'ply' is not a finite number"), std::string::npos) << error;
  EXPECT_FALSE(read_input(ply_as_text.path(), InputOptions{"stl", ""}, 3, 3, input, error));
  EXPECT_NE(error.find("unknown format 'stl'"), std::string::npos) << error;

  TempFile planar("flat.csv", "Name,X,Y\nA,1,2\nB,3,4\n");
  ASSERT_TRUE(read_input(planar.path(), InputOptions{}, 0, 0, input, error)) << error;
  EXPECT_EQ(input.points.columns, 2);
  EXPECT_EQ(input.points.source_lines[1], 3);
  EXPECT_FALSE(read_input(planar.path(), InputOptions{}, 3, 3, input, error));
  EXPECT_NE(error.find("line 1: the header names no Z column"), std::string::npos) << error;

  TempFile probed("probed.csv", "X,Y,Z,R\n1,2,3,0.5\n");
  ASSERT_TRUE(read_input(probed.path(), InputOptions{}, 3, 4, input, error)) << error;
  EXPECT_EQ(input.points.columns, 4);
  EXPECT_EQ(input.points.values[3], 0.5);
  TempFile subnormal("tiny.csv", "X;Y;Z\n1e-310;-4,9e-324;0,5\n");
  ASSERT_TRUE(read_input(subnormal.path(), InputOptions{}, 3, 3, input, error)) << error;
  EXPECT_EQ(std::fpclassify(input.points.values[0]), FP_SUBNORMAL);
  EXPECT_EQ(input.points.values[1], -std::strtod("4.9e-324", nullptr));
  EXPECT_EQ(input.points.values[2], 0.5);
  TempFile xyz_normals("normals.xyz", "1 2 3 0 0 1\n4 5 6 0 1 0\n");
  ASSERT_TRUE(read_input(xyz_normals.path(), InputOptions{}, 3, 3, input, error)) << error;
  EXPECT_EQ(input.normals.rows(), 2);
  EXPECT_EQ(input.normals.values[4], 1.0);
}

}  // namespace
