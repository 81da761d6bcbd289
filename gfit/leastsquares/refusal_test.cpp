#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "gfit/leastsquares/refusal.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// Every output an entry may write, set to marks that no fit produces.
struct Outputs {
  giPoint3 p3{7, 7, 7};
  giPoint2 p2{7, 7};
  giUnitVec3 u3{0, 0, 1};
  giVector3 v3{0, 0, 1};
  giUnitVec2 u2{0, 1};
  double a = 41, b = 42, c = 43, d = 44, e = 45;
  gfFittedCylindercoDynArr cylinders;
  gfFittedConecoDynArr cones;
};

// ---- the data: degenerate sets, and sound ones to pair with bad companion arrays ----------

giPoint3coDynArr line3(int n) {
  giPoint3coDynArr out;
  for (int i = 0; i < n; ++i) out.append(giPoint3(1, 2, 3) + giVector3(1, 1, 0.5) * (0.7 * i));
  return out;
}

giPoint2coDynArr line2(int n) {
  giPoint2coDynArr out;
  for (int i = 0; i < n; ++i) out.append(giPoint2(1 + 0.7 * i, 2 + 0.35 * i));
  return out;
}

// A ring and its centre in a tilted plane: coplanar, and not collinear.
giPoint3coDynArr flat(int n) {
  const giUnitVec3 e1(1, 1, 0), e2(-1, 1, 1);
  giPoint3coDynArr out;
  for (int i = 0; i < n - 1; ++i)
    out.append(giPoint3(1, 2, 3) + giVector3(e1) * (5 * std::cos(0.5 * i)) + giVector3(e2) * (5 * std::sin(0.5 * i)));
  out.append(giPoint3(1, 2, 3));
  return out;
}

doublecoDynArr radii(int n, double last = 0.5) {
  doublecoDynArr r = constant(n, 0.5);
  if (n > 0) r[n - 1] = last;
  return r;
}

struct Data {
  Rng rng{1101};
  giPoint3coDynArr same3 = constant(12, giPoint3(1, 2, 3)), line = line3(12), plane = flat(12), six = flat(6);
  giPoint2coDynArr same2 = constant(12, giPoint2(1, 2)), line_2d = line2(12);
  giPoint2coDynArr circle = sample_circle2(rng, giPoint2(1, 2), 5, 0, 5, 12, 0.01);
  giPoint3coDynArr sphere = sample_sphere(rng, giPoint3(1, 2, 3), 5, giUnitVec3(0, 0, 1), 2.0, 12, 0.01);
  giUnitVec3coDynArr cylinder_normals, cone_normals, sphere_normals;
  giPoint3coDynArr cylinder = sample_cylinder(rng, giPoint3(1, 2, 3), giUnitVec3(0, 1, 1), 4, 5, 0, 6, 12, 0.01,
                                              &cylinder_normals);
  giPoint3coDynArr cone = sample_cone(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 0.5, 1, 5, 0, 6, 12, 0.01,
                                      &cone_normals);
  giPoint3coDynArr torus = sample_torus(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 8, 2, 0, 6, 0, 6, 12, 0.01);
  giPoint3coDynArr exact_sphere = sample_sphere(rng, giPoint3(1, 2, 3), 5, giUnitVec3(0, 0, 1), 3.1, 12, 0.0);
  giUnitVec3coDynArr up = constant(12, giUnitVec3(0, 0, 1));
  giUnitVec2coDynArr up2 = constant(12, giUnitVec2(0, 1));
  // Companion arrays one too long and one too short; here, because the table's fits hold
  // references to their arrays and run after the table is built.
  giUnitVec3coDynArr long_normals = constant(13, giUnitVec3(0, 0, 1)), short_normals = constant(11, giUnitVec3(0, 0, 1));
  giPoint3coDynArr three_contacts;
  Data() {
    for (giPoint3 const& p : exact_sphere) sphere_normals.append(giUnitVec3(p - giPoint3(1, 2, 3)));
    for (int i = 0; i < 3; ++i) three_contacts.append(cone[i]);
  }
};

Data const& data() {
  static Data d;
  return d;
}

// ---- the entries, each with every output of Outputs it writes ------------------------

using Fit = std::function<int(Outputs&)>;
const giAngle kAngle = giAngle::from_degrees(10);

Fit circle(giPoint2coDynArr const& p) {
  return [&p](Outputs& o) { return gfLeastSquareEvaluator::evaluate_circle(p, o.p2, o.a, o.b); };
}
Fit circle_in_plane(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_circle2(giPoint3(1, 2, 3), giUnitVec3(1, -1, 1), p, o.p3, o.a, o.b);
  };
}
Fit circle3(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) { return gfLeastSquareEvaluator::evaluate_circle3(p, o.p3, o.u3, o.a, o.b); };
}
Fit sphere(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) { return gfLeastSquareEvaluator::evaluate_sphere(p, o.p3, o.a, o.b); };
}
Fit cylinder(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_cylinder(p, o.p3, o.u3, o.a, o.b, giUnitVec3(), kAngle, 0);
  };
}
Fit cylinder_normals(giPoint3coDynArr const& p, giUnitVec3coDynArr const& n) {
  return [&p, &n](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_cylinder(p, n, kAngle, o.p3, o.u3, o.a, o.b, 0);
  };
}
Fit cylinders(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_multiple_cylinders(p, giUnitVec3coDynArr(), 0.1, kAngle, 2, o.cylinders);
  };
}
Fit ellipse(giPoint2coDynArr const& p) {
  return [&p](Outputs& o) { return gfLeastSquareEvaluator::evaluate_ellipse(p, o.p2, o.a, o.b, o.c, o.d); };
}
Fit ellipse_in_plane(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_ellipse2(giPoint3(1, 2, 3), giUnitVec3(1, -1, 1), giUnitVec3(), p, o.p3,
                                                     o.a, o.b, o.c, o.d);
  };
}
Fit probed_circle(giPoint2coDynArr const& p, doublecoDynArr r) {
  return [&p, r](Outputs& o) { return gfLeastSquareEvaluator::evaluate_probed_circle(p, r, 0, o.p2, o.a, o.b); };
}
Fit probed_sphere(giPoint3coDynArr const& p, doublecoDynArr r) {
  return [&p, r](Outputs& o) { return gfLeastSquareEvaluator::evaluate_probed_sphere(p, r, 0, o.p3, o.a, o.b); };
}
Fit probed_plane(giPoint3coDynArr const& p, doublecoDynArr r, giUnitVec3coDynArr n) {
  return [&p, r, n](Outputs& o) { return gfLeastSquareEvaluator::evaluate_probed_plane(p, r, n, o.p3, o.u3, o.a); };
}
Fit probed_line(giPoint2coDynArr const& p, doublecoDynArr r, giUnitVec2coDynArr n) {
  return [&p, r, n](Outputs& o) { return gfLeastSquareEvaluator::evaluate_probed_line2(p, r, n, o.p2, o.u2, o.a); };
}
Fit probed_torus(giPoint3coDynArr const& p, doublecoDynArr r) {
  return [&p, r](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_probed_torus(p, r, 0, o.p3, o.u3, o.a, o.b, o.c);
  };
}
Fit torus(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) { return gfLeastSquareEvaluator::evaluate_torus(p, o.p3, o.u3, o.a, o.b, o.c); };
}
Fit axis_rev(giPoint3coDynArr const& p, giUnitVec3coDynArr const& n) {
  return [&p, &n](Outputs& o) { return gfLeastSquareEvaluator::evaluate_axis_rev(p, n, o.p3, o.u3, o.a); };
}
Fit cone(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_cone(p, o.p3, o.u3, o.a, o.b, giUnitVec3(), kAngle, 0);
  };
}
Fit cone_normals(giPoint3coDynArr const& p, giUnitVec3coDynArr const& n) {
  return [&p, &n](Outputs& o) { return gfLeastSquareEvaluator::evaluate_cone(p, n, kAngle, o.p3, o.u3, o.a, o.b, 0); };
}
Fit cones(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_multiple_cones(p, giUnitVec3coDynArr(), 0.1, kAngle, 2, o.cones);
  };
}
Fit probed_cylinder(giPoint3coDynArr const& p, doublecoDynArr r) {
  return [&p, r](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_probed_cylinder(p, r, 0, o.p3, o.u3, o.a, o.b, giUnitVec3(), kAngle, 0);
  };
}
Fit probed_cylinder_normals(giPoint3coDynArr const& p, doublecoDynArr r, giUnitVec3coDynArr const& n) {
  return [&p, r, &n](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_probed_cylinder(p, r, 0, n, kAngle, o.p3, o.u3, o.a, o.b, 0);
  };
}
Fit probed_cone(giPoint3coDynArr const& p, doublecoDynArr r, giPoint3coDynArr contacts = giPoint3coDynArr()) {
  return [&p, r, contacts](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_probed_cone(p, r, 0, contacts, o.p3, o.u3, o.a, o.b, giUnitVec3(), kAngle,
                                                        0);
  };
}
Fit probed_cone_normals(giPoint3coDynArr const& p, doublecoDynArr r, giUnitVec3coDynArr const& n) {
  return [&p, r, &n](Outputs& o) {
    return gfLeastSquareEvaluator::evaluate_probed_cone(p, r, 0, giPoint3coDynArr(), n, kAngle, o.p3, o.u3, o.a, o.b,
                                                        0);
  };
}
Fit sphere_fit(giPoint3coDynArr const& p) {
  return [&p](Outputs& o) { return gfSphereFit::fit(p, o.p3, o.a); };
}
// The closed forms report a status; their refusal is that status, their outputs the
// object's (checked in DirectFitsUseTheirOwnStatusNames).

enum class Mark { none, direction };

struct Case {
  std::string entry, data;
  Fit fit;
  gfReason reason;
  Mark mark = Mark::none;  // the plain cylinder marks its direction, by definition
};

std::vector<Case> refusal_table() {
  Data const& d = data();
  const int n = 12;
  const gfReason undetermined = gfReason::not_determined, bad_array = gfReason::bad_companion_array,
                 bad_radius = gfReason::bad_probe_radius;
  giUnitVec3coDynArr const& long_normals = d.long_normals;
  giUnitVec3coDynArr const& short_normals = d.short_normals;
  giPoint3coDynArr const& three_contacts = d.three_contacts;
  return {
      {"circle", "coincident", circle(d.same2), undetermined},
      {"circle", "collinear", circle(d.line_2d), undetermined},
      {"circle2", "coincident", circle_in_plane(d.same3), undetermined},
      {"circle2", "collinear", circle_in_plane(d.line), undetermined},
      {"circle3", "coincident", circle3(d.same3), undetermined},
      {"circle3", "collinear", circle3(d.line), undetermined},
      {"sphere", "coincident", sphere(d.same3), undetermined},
      {"sphere", "collinear", sphere(d.line), undetermined},
      {"sphere", "coplanar", sphere(d.plane), undetermined},
      {"sphere", "six coplanar", sphere(d.six), undetermined},
      {"cylinder", "coincident", cylinder(d.same3), undetermined, Mark::direction},
      {"cylinder", "collinear", cylinder(d.line), undetermined, Mark::direction},
      {"cylinder", "coplanar", cylinder(d.plane), undetermined, Mark::direction},
      {"cylinder", "six coplanar", cylinder(d.six), undetermined, Mark::direction},
      {"cylinder with normals", "coplanar", cylinder_normals(d.plane, d.up), undetermined, Mark::direction},
      {"cylinder with normals", "long normals", cylinder_normals(d.cylinder, long_normals), bad_array,
       Mark::direction},
      {"cylinder with normals", "short normals", cylinder_normals(d.cylinder, short_normals), bad_array,
       Mark::direction},
      {"multiple cylinders", "collinear", cylinders(d.line), undetermined},
      {"multiple cylinders", "coplanar", cylinders(d.plane), undetermined},
      {"ellipse", "coincident", ellipse(d.same2), undetermined},
      {"ellipse", "collinear", ellipse(d.line_2d), undetermined},
      {"ellipse2", "coincident", ellipse_in_plane(d.same3), undetermined},
      {"ellipse2", "collinear", ellipse_in_plane(d.line), undetermined},
      {"probed circle", "coincident", probed_circle(d.same2, radii(n)), undetermined},
      {"probed circle", "collinear", probed_circle(d.line_2d, radii(n)), undetermined},
      {"probed circle", "negative radius", probed_circle(d.circle, radii(n, -0.5)), bad_radius},
      {"probed circle", "radius not a number", probed_circle(d.circle, radii(n, NAN)), bad_radius},
      {"probed circle", "long radii", probed_circle(d.circle, radii(n + 1)), bad_array},
      {"probed circle", "short radii", probed_circle(d.circle, radii(n - 1)), bad_array},
      {"probed sphere", "coincident", probed_sphere(d.same3, radii(n)), undetermined},
      {"probed sphere", "coplanar", probed_sphere(d.plane, radii(n)), undetermined},
      {"probed sphere", "negative radius", probed_sphere(d.sphere, radii(n, -1.0)), bad_radius},
      {"probed sphere", "long radii", probed_sphere(d.sphere, radii(n + 1)), bad_array},
      {"probed sphere", "short radii", probed_sphere(d.sphere, radii(n - 1)), bad_array},
      {"probed plane", "coincident", probed_plane(d.same3, radii(n), d.up), undetermined},
      {"probed plane", "collinear", probed_plane(d.line, radii(n), d.up), undetermined},
      {"probed plane", "negative radius", probed_plane(d.plane, radii(n, -0.5), d.up), bad_radius},
      {"probed plane", "long normals", probed_plane(d.plane, radii(n), long_normals), bad_array},
      {"probed plane", "short normals", probed_plane(d.plane, radii(n), short_normals), bad_array},
      {"probed plane", "long radii", probed_plane(d.plane, radii(n + 1), d.up), bad_array},
      {"probed line", "coincident", probed_line(d.same2, radii(n), d.up2), undetermined},
      {"probed line", "negative radius", probed_line(d.line_2d, radii(n, -0.5), d.up2), bad_radius},
      {"probed line", "long normals", probed_line(d.line_2d, radii(n), constant(n + 1, giUnitVec2(0, 1))), bad_array},
      {"probed line", "short radii", probed_line(d.line_2d, radii(n - 1), d.up2), bad_array},
      {"torus", "collinear", torus(d.line), undetermined},
      {"torus", "coplanar", torus(d.plane), undetermined},
      {"probed torus", "coplanar", probed_torus(d.plane, radii(n)), undetermined},
      {"probed torus", "negative radius", probed_torus(d.torus, radii(n, -0.5)), bad_radius},
      {"probed torus", "long radii", probed_torus(d.torus, radii(n + 1)), bad_array},
      {"axis of revolution", "coincident", axis_rev(d.same3, d.sphere_normals), undetermined},
      {"axis of revolution", "a sphere's normals", axis_rev(d.exact_sphere, d.sphere_normals), undetermined},
      {"axis of revolution", "long normals", axis_rev(d.cylinder, long_normals), bad_array},
      {"cone", "coincident", cone(d.same3), undetermined},
      {"cone", "collinear", cone(d.line), undetermined},
      {"cone", "coplanar", cone(d.plane), undetermined},
      {"cone with normals", "long normals", cone_normals(d.cone, long_normals), bad_array},
      {"cone with normals", "short normals", cone_normals(d.cone, short_normals), bad_array},
      {"multiple cones", "coplanar", cones(d.plane), undetermined},
      {"probed cylinder", "coplanar", probed_cylinder(d.plane, radii(n)), undetermined},
      {"probed cylinder", "negative radius", probed_cylinder(d.cylinder, radii(n, -0.5)), bad_radius},
      {"probed cylinder", "long radii", probed_cylinder(d.cylinder, radii(n + 1)), bad_array},
      {"probed cylinder", "short radii", probed_cylinder(d.cylinder, radii(n - 1)), bad_array},
      {"probed cylinder with normals", "long normals",
       probed_cylinder_normals(d.cylinder, radii(n), long_normals), bad_array},
      {"probed cone", "coplanar", probed_cone(d.plane, radii(n)), undetermined},
      {"probed cone", "negative radius", probed_cone(d.cone, radii(n, -0.5)), bad_radius},
      {"probed cone", "long radii", probed_cone(d.cone, radii(n + 1)), bad_array},
      {"probed cone", "three contacts", probed_cone(d.cone, radii(n), three_contacts), bad_array},
      {"probed cone with normals", "short normals", probed_cone_normals(d.cone, radii(n), short_normals),
       bad_array},
      {"algebraic sphere", "coplanar", sphere_fit(d.plane), undetermined},
      {"algebraic sphere", "collinear", sphere_fit(d.line), undetermined},
  };
}

void expect_untouched(Outputs const& o, Mark mark) {
  const Outputs fresh;
  EXPECT_EQ(o.p3, fresh.p3);
  EXPECT_EQ(o.p2.x(), 7.0);
  EXPECT_EQ(o.p2.y(), 7.0);
  EXPECT_EQ(o.u3.x(), mark == Mark::direction ? -DBL_MAX : 0.0);
  EXPECT_EQ(o.u3.z(), 1.0);
  EXPECT_EQ(o.u2.y(), 1.0);
  EXPECT_EQ(std::vector<double>({o.a, o.b, o.c, o.d, o.e}), std::vector<double>({41, 42, 43, 44, 45}));
  EXPECT_EQ(o.cylinders.count(), 0);
  EXPECT_EQ(o.cones.count(), 0);
}

TEST(Refusals, EveryEntryRefusesWhatThePointsDoNotDetermineAndSaysWhy) {
  for (Case const& c : refusal_table()) {
    SCOPED_TRACE(c.entry + ", " + c.data);
    gfit::detail::refuse(gfReason::cancelled);  // a stale reason that the entry must replace
    Outputs o;
    EXPECT_EQ(c.fit(o), 0);
    EXPECT_EQ(gfLastReason(), c.reason) << gfLastReasonText();
    expect_untouched(o, c.mark);
  }
}

// A host that has already set its flag: every search stops before its first candidate, says
// "cancelled" and writes nothing, on data that hold its element.
TEST(Refusals, EverySearchStopsOnTheHostsFlag) {
  Data const& d = data();
  const int n = 12;
  giPoint2coDynArr ellipse_points;
  for (int i = 0; i < n; ++i) ellipse_points.append(giPoint2(1 + 5 * std::cos(0.5 * i), 2 + 3 * std::sin(0.5 * i)));
  giPoint3coDynArr ellipse_in_space;
  for (giPoint2 const& q : ellipse_points) ellipse_in_space.append(giPoint3(q.x() + 1, q.x() - 1 + 1, 3 + q.y()));
  const std::vector<Case> searches = {
      {"sphere", "sphere", sphere(d.sphere), gfReason::cancelled},
      {"probed sphere", "sphere", probed_sphere(d.sphere, radii(n)), gfReason::cancelled},
      {"ellipse", "ellipse", ellipse(ellipse_points), gfReason::cancelled},
      {"ellipse2", "ellipse", ellipse_in_plane(ellipse_in_space), gfReason::cancelled},
      {"cylinder", "cylinder", cylinder(d.cylinder), gfReason::cancelled, Mark::direction},
      {"cylinder with normals", "cylinder", cylinder_normals(d.cylinder, d.cylinder_normals), gfReason::cancelled,
       Mark::direction},
      {"multiple cylinders", "cylinder", cylinders(d.cylinder), gfReason::cancelled},
      {"probed cylinder", "cylinder", probed_cylinder(d.cylinder, radii(n)), gfReason::cancelled},
      {"cone", "cone", cone(d.cone), gfReason::cancelled},
      {"cone with normals", "cone", cone_normals(d.cone, d.cone_normals), gfReason::cancelled},
      {"multiple cones", "cone", cones(d.cone), gfReason::cancelled},
      {"probed cone", "cone", probed_cone(d.cone, radii(n)), gfReason::cancelled},
      {"torus", "torus", torus(d.torus), gfReason::cancelled},
      {"probed torus", "torus", probed_torus(d.torus, radii(n)), gfReason::cancelled},
  };
  CancelFlag cancel;
  cancel.flag = true;
  for (Case const& c : searches) {
    SCOPED_TRACE(c.entry);
    Outputs o;
    EXPECT_EQ(c.fit(o), 0);
    EXPECT_EQ(gfLastReason(), c.reason) << gfLastReasonText();
    expect_untouched(o, c.mark);
  }
}

TEST(Refusals, DirectFitsUseTheirOwnStatusNames) {
  Data const& d = data();
  using S = gfDirectFitStatus;
  auto expect = [](S status, S wanted, double chi) {
    EXPECT_EQ(status, wanted);
    EXPECT_EQ(gfLastReason(), gfReason::not_determined) << gfLastReasonText();
    EXPECT_EQ(chi, DBL_MAX);
  };
  giPoint2coDynArr three{d.line_2d[0], d.line_2d[1], d.line_2d[2]}, four{d.line_2d[0], d.line_2d[1], d.line_2d[2],
                                                                         d.line_2d[3]};
  giPoint2coDynArr two_same{giPoint2(1, 2), giPoint2(1, 2)};
  gfDirectCircle2 c3(three), c4(four), c2(two_same);
  expect(c3.status(), S::singular, c3.chi());
  expect(c4.status(), S::degenerate, c4.chi());
  expect(c2.status(), S::degenerate, c2.chi());
  gfDirectEllipse2 e(d.line_2d);
  expect(e.status(), S::degenerate, e.chi());
  for (giPoint3coDynArr const* p : {&d.same3, &d.line}) {
    gfDirectCircle3 circle(*p);
    expect(circle.status(), S::no_plane, circle.chi());
    gfDirectEllipse3 ellipse(*p);
    expect(ellipse.status(), S::no_plane, ellipse.chi());
  }
  gfSphereFit flat_sphere(d.plane);
  EXPECT_EQ(flat_sphere.status(), S::singular);
  // Nearly collinear points: no huge circle from the rounding.
  giPoint2coDynArr nearly = d.line_2d;
  nearly[5] = giPoint2(nearly[5].x(), nearly[5].y() + 1e-11);
  gfDirectCircle2 huge(nearly);
  expect(huge.status(), S::degenerate, huge.chi());
}

TEST(Refusals, LinesWriteTheirOutputsOnCoincidentPointsAndSayWhy) {
  giPoint3 p;
  giUnitVec3 u;
  double rms = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line3(data().same3, p, u, rms), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(p, giPoint3(1, 2, 3));
}

// Nearly degenerate data reach the solver; the test at the solution refuses them.
TEST(Refusals, NearlyDegenerateDataAreRefusedAtTheSolution) {
  Rng rng(1102);
  giPoint2coDynArr bent = line2(40);
  giPoint3coDynArr warped = flat(40);
  for (giPoint2& q : bent) q = giPoint2(q.x(), q.y() + 1e-10 * rng.normal());
  for (giPoint3& q : warped) q = q + giVector3(1, -1, 1) * (1e-10 * rng.normal());
  Outputs o;
  EXPECT_EQ(circle(bent)(o), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(sphere(warped)(o), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  expect_untouched(o, Mark::none);
}

// The threshold leaves thin arcs well inside (the certified sets, which score 1.3e-3 or more,
// are fitted by the conformance tests): the determination of a 20-degree arc is about
// 2.4e-3, that of a 1-degree arc 6e-6, against 1e-9.
TEST(Refusals, ThinArcsStayAccepted) {
  Rng rng(1103);
  for (double degrees : {20.0, 5.0, 1.0}) {
    SCOPED_TRACE(degrees);
    const double span = degrees * giPi / 180.0;
    giPoint2coDynArr arc = sample_circle2(rng, giPoint2(1e5, -2e5), 50, 1.0, span, 40, 1e-6);
    Outputs o;
    ASSERT_EQ(circle(arc)(o), 1) << gfLastReasonText();
    EXPECT_EQ(gfLastReason(), gfReason::none);
    EXPECT_NEAR(o.a, 50, 50 * 1e-4 / (span * span));
    giPoint3coDynArr arc3;
    for (giPoint2 const& q : arc) arc3.append(giPoint3(q.x(), 0.5 * q.y(), 0.3 * q.y()));
    ASSERT_EQ(circle3(arc3)(o), 1) << gfLastReasonText();
    gfLeastSquareCircle2 problem(arc);
    const double ratio = gfit::detail::determination(problem, mlVector{o.p2.x(), o.p2.y(), 50.0});
    EXPECT_GT(ratio, 1e-6);
  }
}

// The test at the solution reads the parameters in the frame of the problem that judges them:
// the searches fit cylinders and cones with the axis point measured from the points'
// centroid. The same element must score the same ratio in the world frame, in a frame at the
// centroid, in one elsewhere, and 1e7 away from the coordinate origin; and a small cone far
// away keeps its apex within the size bound.
TEST(Refusals, TheTestAtTheSolutionDoesNotDependOnTheFrame) {
  Rng rng(1104);
  const giPoint3 at(1, 2, 3);
  const giVector3 far(1e7, -2e7, 3e6);
  // Parameters of `world` (axis point first) measured from `origin`.
  auto from = [](mlVector world, giPoint3 const& origin) {
    world[0] -= origin.x();
    world[1] -= origin.y();
    world[2] -= origin.z();
    return world;
  };
  {
    const giUnitVec3 axis(0.2, 1, 0.7);
    giPoint3coDynArr pts = sample_cylinder(rng, at, axis, 4, 5, 0.3, 1.6, 200, 1e-4);
    giPoint3coDynArr moved = shifted(pts, far);
    const mlVector p{at.x(), at.y(), at.z(), axis.x(), axis.y(), axis.z(), 4.0};
    gfLeastSquareCylinder world(pts);
    const double expected = gfit::detail::axial_determination(world, p);
    ASSERT_TRUE(gfit::detail::determined(expected));
    const giPoint3 centroid = gfit::detail::mean_of(pts.data(), pts.count());
    const giPoint3 elsewhere = at + giVector3(30, -40, 10);
    gfLeastSquareCylinder centred(pts, centroid), other(pts, elsewhere);
    EXPECT_NEAR(gfit::detail::axial_determination(centred, from(p, centroid)), expected, 1e-9 * expected);
    EXPECT_NEAR(gfit::detail::axial_determination(other, from(p, elsewhere)), expected, 1e-9 * expected);
    const giPoint3 far_centroid = gfit::detail::mean_of(moved.data(), moved.count());
    gfLeastSquareCylinder far_away(moved, far_centroid);
    EXPECT_NEAR(gfit::detail::axial_determination(far_away, from(p, far_centroid - far)), expected,
                1e-6 * expected);
  }
  {
    // A cone whose points span about 5: the size bound is then about 5e6, closer than the
    // coordinate origin lies to the moved points.
    const giUnitVec3 axis(0.3, -0.2, 1);
    const double theta = 0.4;
    giPoint3coDynArr pts = sample_cone(rng, at, axis, theta, 1, 3, 0, 6, 200, 1e-5);
    giPoint3coDynArr moved = shifted(pts, far);
    const giPoint3 a = at - giVector3(axis) * 2.0;  // on the axis, 2 from the apex
    const mlVector p{a.x(), a.y(), a.z(), axis.x(), axis.y(), axis.z(), 2.0 * std::sin(theta), theta};
    const double extent = gfit::detail::point_spread(pts).extent;
    ASSERT_LT(extent, 10.0);
    gfLeastSquareCone world(pts);
    const double expected = gfit::detail::axial_determination(world, p);
    ASSERT_TRUE(gfit::detail::determined(expected));
    EXPECT_TRUE(gfit::detail::cone_determined(world, p, 1e-10, extent)) << gfLastReasonText();
    const giPoint3 centroid = gfit::detail::mean_of(pts.data(), pts.count());
    gfLeastSquareCone centred(pts, centroid);
    EXPECT_NEAR(gfit::detail::axial_determination(centred, from(p, centroid)), expected, 1e-9 * expected);
    const giPoint3 far_centroid = gfit::detail::mean_of(moved.data(), moved.count());
    gfLeastSquareCone far_away(moved, far_centroid);
    const mlVector local = from(p, far_centroid - far);
    EXPECT_NEAR(gfit::detail::axial_determination(far_away, local), expected, 1e-6 * expected);
    EXPECT_TRUE(gfit::detail::cone_determined(far_away, local, 1e-10, extent)) << gfLastReasonText();
    // The whole search there returns that cone.
    giPoint3 apex;
    giUnitVec3 u;
    double half_angle = 0, rms = 0;
    ASSERT_EQ(gfCalculateLeastSquareCone(moved, apex, u, half_angle, rms, giUnitVec3(), giAngle::from_degrees(180),
                                         giUnitVec3coDynArr(), 0),
              1)
        << gfLastReasonText();
    EXPECT_LT(apex.distance(at + far), 1e-3);
    EXPECT_NEAR(half_angle, theta, 1e-4);
  }
}

}  // namespace
