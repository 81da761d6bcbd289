#include "test/support/reference_data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace gfit::testing {

namespace {
std::filesystem::path folder(std::string const& kind) {
  return std::filesystem::path(GFIT_TEST_DATA_DIR) / "nist-l2" / kind;
}
}  // namespace

std::vector<std::string> reference_sets(std::string const& kind) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder(kind)))
    if (entry.path().extension() == ".ds") names.push_back(entry.path().stem().string());
  std::sort(names.begin(), names.end());
  return names;
}

ReferenceSet load_reference_set(std::string const& kind, std::string const& name) {
  ReferenceSet set;
  set.name = name;
  std::ifstream ds(folder(kind) / (name + ".ds"));
  int n = 0;
  ds >> n;
  EXPECT_TRUE(ds.good()) << "cannot read " << name << ".ds";
  set.points.reserve(n);
  for (int i = 0; i < n; ++i) {
    double x, y, z;
    ds >> x >> y >> z;
    set.points.append(giPoint3(x, y, z));
  }
  EXPECT_FALSE(ds.fail()) << "short data set " << name;
  std::ifstream fit(folder(kind) / (name + ".fit"));
  double v;
  while (fit >> v) set.certified.push_back(v);
  return set;
}

void for_each_reference_set(std::string const& kind, size_t count,
                            std::function<void(ReferenceSet const&)> const& check) {
  std::vector<std::string> names = reference_sets(kind);
  ASSERT_EQ(names.size(), count) << kind;
  for (std::string const& name : names) {
    SCOPED_TRACE(kind + " " + name);
    check(load_reference_set(kind, name));
  }
}

}  // namespace gfit::testing
