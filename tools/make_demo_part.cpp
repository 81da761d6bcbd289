// Writes the demo data of `make demo`: data/bracket.step, the demo bracket made with
// OpenCASCADE, and data/bracket.xyz, points measured on it: 400 points on its faces with
// 5 micrometres of Gaussian noise along the normal, the top face 0.02 mm high, and two
// points beyond its sharp bottom edges that no face sees along its normal.
//
//   gfit_make_demo_part OUTPUT_DIR      (run by scripts/make-demo-data)
#include <cstdio>
#include <fstream>
#include <iostream>

#include "tools/demo_part.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: gfit_make_demo_part OUTPUT_DIR\n";
    return 2;
  }
  std::string dir = argv[1];
  tskSurfPtr part = gfit::demo::bracket();
  std::string error;
  if (!part || !part->write(dir + "/bracket.step", error)) {
    std::cerr << "gfit_make_demo_part: " << (part ? error : "cannot make the bracket") << "\n";
    return 1;
  }
  std::ofstream out(dir + "/bracket.xyz");
  out << "# Points measured on data/bracket.step (x y z, mm): 5 um noise, top face 0.02 mm high,\n"
         "# and the last two beyond the sharp bottom edges. Written by tools/make_demo_part.cpp.\n";
  gfit::demo::Noise rng(2024);
  giBox3 box = part->box();
  tskSurfPointList feet;
  char line[128];
  for (int n = 0; n < 400;) {
    giPoint3 p(rng.uniform(box.min().x(), box.max().x()), rng.uniform(box.min().y(), box.max().y()),
               rng.uniform(box.min().z(), box.max().z()));
    part->project(p, feet, [](tskSurfPoint const& f) { return f.distance; });
    giUnitVec3 normal;
    if (feet.empty() || !part->normal(feet[0], 1e-5, 1e-5, normal)) continue;
    if (normal.cross(p - feet[0].point).length() > 1e-6 * (1 + feet[0].distance)) continue;  // edge regions
    double offset = 0.005 * rng.normal() + (normal.z() > 0.999 && feet[0].point.z() > 19.99 ? 0.02 : 0.0);
    giPoint3 q = feet[0].point + normal * offset;
    std::snprintf(line, sizeof line, "%.5f %.5f %.5f\n", q.x(), q.y(), q.z());
    out << line;
    ++n;
  }
  out << "40.00000 -3.00000 -3.00000\n-3.00000 25.00000 -2.00000\n";  // beyond the sharp bottom edges
  return out ? 0 : 1;
}
