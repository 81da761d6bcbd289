// The demo part and the noise of its measured points (tools/make_demo_part.cpp writes both to
// data/); the surface kernel's tests use the same part. Lengths in millimetres.
#pragma once

#include <cstdint>
#include <random>

#include "gfit/cad/surface.h"

namespace gfit::demo {

// An 80 x 50 x 20 bracket with rounded vertical corners (radius 6), a through hole of radius 8
// at (25, 25) and its top outer edges rounded by 2 (planes, cylinders, tori).
tskSurfPtr bracket();

// Seeded pseudo-random numbers: the same seed gives the same demo points on every platform
// (mt19937_64 is fully specified; the distributions are written out here, not taken from the
// standard library, whose distributions differ between implementations).
class Noise {
 public:
  explicit Noise(std::uint64_t seed) : engine_(seed) {}
  double uniform() { return (engine_() >> 11) * 0x1.0p-53; }  // [0, 1)
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  double normal();  // standard normal, Box-Muller

 private:
  std::mt19937_64 engine_;
  bool has_spare_ = false;
  double spare_ = 0.0;
};

}  // namespace gfit::demo
