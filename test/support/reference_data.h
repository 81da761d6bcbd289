// The NIST least-squares reference pairs (data set + certified fit, computed in 60-digit
// arithmetic), copied into test/data/nist-l2 from NIST's "Algorithm Testing" page.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "gfit/gfit.h"

namespace gfit::testing {

struct ReferenceSet {
  std::string name;               // e.g. "pla12"
  giPoint3coDynArr points;        // x y z of every point
  std::vector<double> certified;  // the .fit numbers, in file order

  // Three certified numbers from index i, as a point or a vector.
  giPoint3 certified_point(int i = 0) const { return giPoint3(certified[i], certified[i + 1], certified[i + 2]); }
  giVector3 certified_vector(int i = 3) const { return giVector3(certified[i], certified[i + 1], certified[i + 2]); }
};

// The names of the sets in test/data/nist-l2/<kind> (e.g. "Plane"), sorted.
std::vector<std::string> reference_sets(std::string const& kind);
ReferenceSet load_reference_set(std::string const& kind, std::string const& name);

// Expects `count` sets of `kind` and runs `check` on each, its failures traced to the set.
void for_each_reference_set(std::string const& kind, size_t count,
                            std::function<void(ReferenceSet const&)> const& check);

}  // namespace gfit::testing
