// The NIST least-squares reference pairs (data set + certified fit, computed in 60-digit
// arithmetic), copied into test/data/nist-l2 from NIST's "Algorithm Testing" page.
#pragma once

#include <string>
#include <vector>

#include "gfit/gfit.h"

namespace gfit::testing {

struct ReferenceSet {
  std::string name;               // e.g. "pla12"
  giPoint3coDynArr points;        // x y z of every point
  std::vector<double> certified;  // the .fit numbers, in file order
};

// The names of the sets in test/data/nist-l2/<kind> (e.g. "Plane"), sorted.
std::vector<std::string> reference_sets(std::string const& kind);
ReferenceSet load_reference_set(std::string const& kind, std::string const& name);

}  // namespace gfit::testing
