#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "gfit/gfit.h"

namespace {

using Points = std::vector<giPoint2>;
using Radii = std::vector<double>;

// Every extremal circle entry behind one signature; `width` is the min-max width output.
struct Entry {
  char const* name;
  std::function<giCircle2(Points const&, Radii const*, double&)> fit;
};

std::vector<Entry> entries() {
  return {
      {"min-circle", [](Points const& p, Radii const*, double&) {
         return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p);
       }},
      {"min-circle probed", [](Points const& p, Radii const* r, double&) {
         return gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p, r ? *r : Radii(p.size(), 0.1),
                                                                                   true);
       }},
      {"max-circle", [](Points const& p, Radii const*, double&) {
         return gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p);
       }},
      {"max-circle probed", [](Points const& p, Radii const* r, double&) {
         return gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(p, r ? *r : Radii(p.size(), 0.1),
                                                                                    false);
       }},
      {"minmax-circle", [](Points const& p, Radii const*, double& w) { return gfMinMaxCircleFit::fit(p, w); }},
      {"minmax-circle probed", [](Points const& p, Radii const* r, double& w) {
         return gfMinMaxCircleFit::fit_probed(p, r ? *r : Radii(p.size(), 0.1), true, w);
       }},
  };
}

// Refusals of every entry: a default circle, the width untouched, the reason recorded. The
// overflowing coordinates used to crash the inscribed and min-max walks (an empty list of
// nearest points was read).
TEST(ExtremalCircleRefusals, EveryEntryRefusesWithItsReason) {
  const Points two{giPoint2(0, 0), giPoint2(1, 0)};
  const Radii short_radii{0.1}, negative{0.1, -0.1}, nan_radius{0.1, NAN}, huge_radius{0.1, 1e200};
  struct Case {
    char const* what;
    Points points;
    Radii const* radii;  // null: the entry's own (0.1 each) or none
    bool probed_only;
    gfReason reason;
  };
  const Case cases[] = {
      {"overflowing squares", {giPoint2(0, 0), giPoint2(1e155, 0)}, nullptr, false, gfReason::out_of_range},
      {"largest double", {giPoint2(0, 0), giPoint2(1e308, 0)}, nullptr, false, gfReason::out_of_range},
      {"not a number", {giPoint2(0, 0), giPoint2(NAN, 1)}, nullptr, false, gfReason::non_finite_input},
      {"infinite", {giPoint2(0, -INFINITY), giPoint2(1, 1)}, nullptr, false, gfReason::non_finite_input},
      {"radii not one per point", two, &short_radii, true, gfReason::bad_companion_array},
      {"negative radius", two, &negative, true, gfReason::bad_probe_radius},
      {"radius not a number", two, &nan_radius, true, gfReason::non_finite_input},
      {"radius overflowing", two, &huge_radius, true, gfReason::out_of_range},
  };
  for (Entry const& e : entries())
    for (Case const& c : cases) {
      if (c.probed_only && std::string(e.name).find("probed") == std::string::npos) continue;
      double width = 7.0;
      gfit::detail::succeed();
      giCircle2 circle = e.fit(c.points, c.radii, width);
      EXPECT_TRUE(circle.invalid()) << e.name << ": " << c.what;
      EXPECT_EQ(width, 7.0) << e.name << ": " << c.what;
      EXPECT_EQ(gfLastReason(), c.reason) << e.name << ": " << c.what;
    }
}

// No points: every entry returns the default circle ("no circle") and records too few
// points; the min-max entries also set the width to 0. One point: the circle of radius 0 at
// it. Large but safe coordinates are fitted.
TEST(ExtremalCircleRefusals, EmptySinglePointAndLargeCoordinates) {
  for (Entry const& e : entries()) {
    double width = 7.0;
    EXPECT_TRUE(e.fit({}, nullptr, width).invalid()) << e.name;
    EXPECT_EQ(gfLastReason(), gfReason::too_few_points) << e.name;
    const Points big{giPoint2(1e149, 0), giPoint2(-1e149, 0), giPoint2(0, 1e149), giPoint2(0, -0.9e149)};
    giCircle2 c = e.fit(big, nullptr, width);
    EXPECT_FALSE(c.invalid()) << e.name;
    EXPECT_TRUE(std::isfinite(c.radius()) && c.centre().finite()) << e.name;
    EXPECT_EQ(gfLastReason(), gfReason::none) << e.name;
  }
  double width = 7.0;
  giCircle2 one = gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle({giPoint2(2, 3)});
  EXPECT_EQ(one.radius(), 0.0);
  one = gfMaximumInscribedCircle::calculate_maximum_inscribed_circle({giPoint2(2, 3)});
  EXPECT_EQ(one.radius(), 0.0);
  EXPECT_EQ(one.centre(), giPoint2(2, 3));
  one = gfMinMaxCircleFit::fit({giPoint2(2, 3)}, width);
  EXPECT_EQ(width, 0.0);
}

}  // namespace
