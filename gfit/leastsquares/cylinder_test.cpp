#include <gtest/gtest.h>

#include <cfloat>
#include <chrono>
#include <cmath>
#include <thread>
#if defined(__linux__)
#include <pthread.h>
#include <time.h>
#endif
#include <vector>

#include "gfit/gfit.h"
#include "gfit/leastsquares/axis_candidates.h"
#include "gfit/leastsquares/axis_search.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/reference_data.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

struct Cylinder {
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0, residual = 0;
  Bits bits() const {
    return {point.x(), point.y(), point.z(), direction.x(), direction.y(), direction.z(), radius, residual};
  }
};

// The foot of the perpendicular from x onto the axis of c.
giPoint3 foot(giPoint3 const& x, Cylinder const& c) { return c.point + c.direction * c.direction.dot(x - c.point); }

int fit(giPoint3coDynArr const& pts, Cylinder& c, giUnitVec3 const& guess = giUnitVec3(),
        giAngle const& angle = giAngle(), int k = 0) {
  return gfLeastSquareEvaluator::evaluate_cylinder(pts, c.point, c.direction, c.radius, c.residual, guess, angle, k);
}

int fit(giPoint3coDynArr const& pts, giUnitVec3coDynArr const& normals, Cylinder& c) {
  return gfLeastSquareEvaluator::evaluate_cylinder(pts, normals, giAngle::from_degrees(5), c.point, c.direction,
                                                   c.radius, c.residual, 0);
}

// ---- certified answers ------------------------------------------------------------------

TEST(CylinderConformance, NistCylinders) {
  for_each_reference_set("Cylinder", 30, [](ReferenceSet const& set) {
    Cylinder c;
    ASSERT_EQ(fit(set.points, c), 1);
    EXPECT_NEAR(2 * c.radius, set.certified[6], 1e-9);  // measured: 1.4e-11 at worst
    EXPECT_LT(line_angle(c.direction, set.certified_vector()), 1e-9);
    EXPECT_LT(distance_from_axis(set.certified_point(), c.point, c.direction), 1e-9);
  });
}

// ---- recovery ---------------------------------------------------------------------------

TEST(CylinderRecovery, NoisyFullCylindersAnywhereAndAQuarterPatch) {
  Rng rng(41);
  const double noise = 1e-3;
  for (int trial = 0; trial < 6; ++trial) {
    giPoint3 point = rng.point_in_box(1000);
    giUnitVec3 axis = rng.direction();
    double radius = rng.uniform(5, 40), half_length = rng.uniform(10, 60);
    Cylinder c;
    ASSERT_EQ(fit(sample_cylinder(rng, point, axis, radius, half_length, 0, 2 * giPi, 600, noise), c), 1);
    // The tilt is known to about noise / (rms height * sqrt(n / 2)) < 1e-5 rad; position and
    // radius to a few noise / sqrt(n); allow five times.
    EXPECT_LT(line_angle(c.direction, axis), 5e-5);
    EXPECT_LT(distance_from_axis(point, c.point, c.direction), 5e-4);
    EXPECT_NEAR(c.radius, radius, 5e-4);
    EXPECT_NEAR(c.residual, noise, 1e-4);
  }
  Rng patch_rng(42);
  giPoint3 point(250, -120, 40);
  giUnitVec3 axis(0.2, 0.9, -0.3);
  Cylinder c;
  ASSERT_EQ(fit(sample_cylinder(patch_rng, point, axis, 25, 30, 1.0, giPi / 2, 800, noise), c), 1);
  // A quarter of the circumference leaves the radius and the depth of the axis correlated:
  // they are known to about 20 * noise / sqrt(n); allow 3e-3.
  EXPECT_LT(line_angle(c.direction, axis), 1e-4);
  EXPECT_LT(distance_from_axis(point, c.point, c.direction), 3e-3);
  EXPECT_NEAR(c.radius, 25, 3e-3);
}

TEST(CylinderRecovery, NormalsAndAGuessGuideTheAxis) {
  Rng rng(43);
  giUnitVec3 axis(1, 2, 2);
  giUnitVec3coDynArr normals;
  giPoint3coDynArr pts = sample_cylinder(rng, giPoint3(10, 20, 30), axis, 8, 15, 0, 2 * giPi, 300, 1e-3, &normals);
  Cylinder c, inward, guided;
  ASSERT_EQ(fit(pts, normals, c), 1);
  EXPECT_LT(line_angle(c.direction, axis), 1e-4);
  for (giUnitVec3& n : normals) n = -n;  // inward normals agree as well
  ASSERT_EQ(fit(pts, normals, inward), 1);
  EXPECT_EQ(inward.radius, c.radius);
  ASSERT_EQ(fit(pts, guided, giUnitVec3(1, 2.1, 2), giAngle::from_degrees(10)), 1);
  EXPECT_LT(line_angle(guided.direction, axis), 1e-4);
}

TEST(CylinderRecovery, RefinementOfAGrownPointSet) {
  Rng rng(44);
  giPoint3 point(-5, 7, 2);
  giUnitVec3 axis(0, 0.6, 0.8);
  giPoint3coDynArr pts = sample_cylinder(rng, point, axis, 12, 20, 0, 2 * giPi, 200, 1e-3);
  Cylinder first;
  ASSERT_EQ(fit(pts, first), 1);
  for (giPoint3 const& p : sample_cylinder(rng, point, axis, 12, 20, 0, 2 * giPi, 10, 1e-3)) pts.append(p);
  Cylinder refined = first, full;
  ASSERT_EQ(fit(pts, refined, giUnitVec3(), giAngle(), 10), 1);
  ASSERT_EQ(fit(pts, full), 1);
  EXPECT_NEAR(refined.radius, full.radius, 1e-9);
  EXPECT_LT(line_angle(refined.direction, full.direction), 1e-9);
  // A far outlier among the new points abandons the refinement for the full search, which
  // still ends at the least-squares cylinder.
  pts.append(point + giVector3(500, 0, 0));
  Cylinder with_outlier = first, full_outlier;
  ASSERT_EQ(fit(pts, with_outlier, giUnitVec3(), giAngle(), 1), 1);
  ASSERT_EQ(fit(pts, full_outlier), 1);
  EXPECT_NEAR(with_outlier.residual, full_outlier.residual, 1e-9 * full_outlier.residual);
}

// ---- the problem and its pieces ---------------------------------------------------------

TEST(CylinderProblem, GradientNormalisationAndScales) {
  Rng rng(45);
  giPoint3coDynArr pts = sample_cylinder(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 4, 5, 0, 6, 30, 0.1);
  gfLeastSquareCylinder problem(pts);  // problems hold their points by reference
  // The distances read a unit direction: the gradient is taken at one.
  giUnitVec3 tilted(0.1, 0.05, 1);
  EXPECT_LT(gradient_error(problem, mlVector{1.1, 2.2, 0, tilted.x(), tilted.y(), tilted.z(), 3.8}), 1e-7);
  mlVector p{5, 5, 5, 0, 0, 2, -3}, zero{1, 2, 3, 0, 0, 0, 1};
  problem.normalize_parameters(p);
  EXPECT_EQ(p[2], 0.0);  // slid along the axis to the foot from the origin
  EXPECT_EQ(p[5], 1.0);
  EXPECT_EQ(p[6], -3.0);  // the radius keeps its sign
  problem.normalize_parameters(zero);
  EXPECT_EQ(zero[3], 1.0);
  EXPECT_EQ(problem.n_independent_parameters(), 5);
  mlVector scales;
  giPoint3coDynArr line{giPoint3(0, 0, -2), giPoint3(0, 0, 4)};
  gfLeastSquareCylinder short_one(line);
  short_one.set_parameters(mlVector{1, 0, 0, 0, 0, 1, 8});
  short_one.parameter_scales(scales);
  EXPECT_DOUBLE_EQ(scales[3], 10.0);  // sqrt(6^2 + 8^2)
  EXPECT_EQ(scales[6], 1.0);
}

TEST(CylinderProblem, InitialSolutionFindsTwoParallelRings) {
  giPoint3coDynArr six;
  giUnitVec3 axis(1, 1, 0), e1 = axis.any_normal(), e2(axis.cross(e1));
  for (double h : {0.0, 7.0})
    for (double t : {0.1, 2.2, 4.3})
      six.append(giPoint3(3, 3, 3) + axis * h + e1 * (2 * std::cos(t)) + e2 * (2 * std::sin(t)));
  giVector3 direction;
  EXPECT_EQ(gfCylinder_InitialSolution(six, direction), 1);
  EXPECT_LT(line_angle(direction, axis), 1e-12);
}

TEST(CylinderProblem, FittedCylinderCoincidenceAndValidity) {
  gfFittedCylinder a(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 5, 0.01);
  gfFittedCylinder shifted(giPoint3(0, 0, 40), giUnitVec3(0, 0, -1), 5.0005, 0.02);
  gfFittedCylinder beside(giPoint3(0.01, 0, 0), giUnitVec3(0, 0, 1), 5, 0.01);
  const giAngle degree = giAngle::from_degrees(1);
  EXPECT_EQ(a.coincident(shifted, 0.001, degree), 1);
  EXPECT_EQ(a.coincident(shifted, -1.0, degree), 0);
  EXPECT_EQ(a.coincident(beside, 0.001, degree), 0);
  EXPECT_EQ(gfFittedCylinder().invalid(), 1);
  EXPECT_EQ(a.invalid(), 0);
  EXPECT_EQ(gfFittedCylinder(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 0.0, 0.1).invalid(), 1);
  gfFittedCylindercoDynArr list;
  for (gfFittedCylinder const* c : {&a, &shifted, &beside})
    gfLeastSquareCylinder::add_distinct_result(*c, 0.001, degree, list);
  EXPECT_EQ(list.count(), 2);
}

TEST(CylinderProblem, SeveralCylindersInOnePointSet) {
  Rng rng(46);
  giUnitVec3 a1(0, 0, 1), a2(1, 0, 0);
  giPoint3coDynArr pts = sample_cylinder(rng, giPoint3(0, 0, 0), a1, 5, 10, 0, 2 * giPi, 300, 1e-4);
  for (giPoint3 const& p : sample_cylinder(rng, giPoint3(0, 30, 0), a2, 3, 10, 0, 2 * giPi, 300, 1e-4)) pts.append(p);
  gfFittedCylindercoDynArr results;
  giUnitVec3coDynArr preferred{a1, a2};
  // Each cylinder alone leaves the other's points as far outliers: no single cylinder has a
  // small RMS over all points, so nothing is found with a tight tolerance...
  EXPECT_EQ(
      gfLeastSquareEvaluator::evaluate_multiple_cylinders(pts, preferred, 0.01, giAngle::from_degrees(2), 2, results),
      0);
  // ... while one cylinder's points alone give it back, once.
  giPoint3coDynArr single = sample_cylinder(rng, giPoint3(0, 0, 0), a1, 5, 10, 0, 2 * giPi, 300, 1e-4);
  EXPECT_EQ(gfCalculateMultipleLeastSquareCylinders(single, preferred, 0.01, giAngle::from_degrees(2), 2, results), 1);
  ASSERT_EQ(results.count(), 1);
  EXPECT_NEAR(results[0].radius(), 5.0, 1e-4);
  EXPECT_LT(line_angle(results[0].axis_dir(), a1), 1e-4);
  // A dense scan is searched on 2000 of its points; what it keeps is refined on all.
  giPoint3coDynArr dense = sample_cylinder(rng, giPoint3(0, 0, 0), a1, 5, 10, 0, 2 * giPi, 20000, 1e-4);
  gfFittedCylindercoDynArr one;
  ASSERT_EQ(gfCalculateMultipleLeastSquareCylinders(dense, preferred, 0.01, giAngle::from_degrees(2), 1, one), 1);
  Cylinder all;
  ASSERT_EQ(fit(dense, all), 1);
  EXPECT_NEAR(one[0].radius(), all.radius, 1e-9);
  EXPECT_NEAR(one[0].deviation(), all.residual, 1e-9 * all.residual);
}

// ---- far from the origin, dense scans, the ranking of candidates --------------------------

// Points far from the origin against the same points moved back by the offset (exactly:
// each coordinate lies within a factor two of the offset's, so the subtraction is exact),
// and against themselves in another order. Before the fits worked in a frame centred on the
// points, 1e7 away the axis came out 1e-2 rad off and the RMS a hundred times too large.
TEST(CylinderFarAway, KeepsItsDigitsWhereverThePointsLieAndInAnyOrder) {
  struct Case {
    int n;
    double span;
  };
  Rng rng(49);
  const giUnitVec3 axis(0.3, -0.5, 0.81);
  for (Case c : {Case{600, 2 * giPi}, Case{3000, giPi / 2}}) {  // all points ranked; a subset
    giPoint3coDynArr near = sample_cylinder(rng, giPoint3(3, -2, 5), axis, 20, 40, 0, c.span, c.n, 1e-3);
    for (double offset : {1e5, 1e6, 1e7}) {
      SCOPED_TRACE(::testing::Message() << c.n << " points, offset " << offset);
      const giVector3 o = giVector3(0.6, -0.48, 0.64) * offset;
      const giPoint3coDynArr far = shifted(near, o), back = shifted(far, -o);
      Cylinder f, b, s;
      ASSERT_EQ(fit(far, f), 1);
      ASSERT_EQ(fit(back, b), 1);
      ASSERT_EQ(fit(shuffled(far, 7), s), 1);
      // Nine digits or better (measured: 1e-13 in the radius, 1e-12 in the RMS).
      for (Cylinder const* other : {&b, &s}) {
        EXPECT_NEAR(other->radius, f.radius, 1e-9 * f.radius);
        EXPECT_NEAR(other->residual, f.residual, 1e-9 * f.residual);
        EXPECT_LT(line_angle(other->direction, f.direction), 1e-9);
      }
      // The axes among the points (the axis points given back are the feet from the
      // coordinate origin, 1e7 away along the axis, where a tilt of 1e-15 already shows).
      const giPoint3 x = giPoint3(3, -2, 5) + o;
      const giPoint3 on_f = foot(x, f), on_s = foot(x, s), on_b = foot(giPoint3(3, -2, 5), b) + o;
      EXPECT_LT(on_b.distance(on_f), 1e-8);
      EXPECT_LT(on_s.distance(on_f), 1e-8);
    }
  }
}

// A dense scan is ranked on 2000 of its points and refined on all: it ends at the
// least-squares cylinder of all the points (the solver started at the true cylinder).
TEST(CylinderFarAway, DenseScansEndAtTheLeastSquaresCylinder) {
  Rng rng(50);
  const giPoint3 point(250, -120, 40);
  const giUnitVec3 axis(0.2, 0.9, -0.3);
  for (double span : {2 * giPi, giPi / 6}) {
    giPoint3coDynArr pts = sample_cylinder(rng, point, axis, 25, 30, 1.0, span, 20000, 1e-3);
    Cylinder c;
    ASSERT_EQ(fit(pts, c), 1);
    gfLeastSquareCylinder problem(pts);
    mlLevenbergMarquardt lm(problem);
    mlVector truth{point.x(), point.y(), point.z(), axis.x(), axis.y(), axis.z(), 25.0}, best(7);
    const double rms = std::sqrt(lm.fit(truth, best));
    EXPECT_NEAR(c.residual, rms, 1e-9 * rms);
    EXPECT_NEAR(c.radius, best[6], 1e-8 * best[6]);
    EXPECT_LT(line_angle(c.direction, giVector3(best[3], best[4], best[5])), 1e-9);
  }
}

// The batches are ranked by the algebraic circle, with the contenders fitted to
// convergence; the ranking that the search means is by the least-squares circle
// (evaluate_circle2 along each direction and the cylinder's sum of squares). On data with
// several near-equal cylinders or axes both choose the same direction in every batch.
TEST(CylinderSearch, RanksBatchesAsTheLeastSquaresCircleOnMultiModalData) {
  Rng rng(51);
  struct Data {
    char const* name;
    giPoint3coDynArr points;
  };
  std::vector<Data> sets;
  {
    // Two crossing cylinders of about equal size: either is a near-equal minimum.
    giPoint3coDynArr p = sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(1, 0, 0), 10, 30, 0, 2 * giPi, 300, 1e-3);
    for (giPoint3 const& q : sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 1, 0.05), 10, 30, 0, 2 * giPi, 303,
                                             1e-3))
      p.append(q);
    sets.push_back({"crossing", p});
  }
  {
    giPoint3coDynArr p = sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 10, 30, 0, 2 * giPi, 300, 1e-3);
    for (giPoint3 const& q : sample_cylinder(rng, giPoint3(25, 0, 0), giUnitVec3(0, 0, 1), 10.2, 30, 0, 2 * giPi, 300,
                                             1e-3))
      p.append(q);
    sets.push_back({"side by side", p});
  }
  for (double r2 : {50.5, 52.0}) {  // a doubly curved patch: an axis along either curvature
    giPoint3coDynArr p;
    for (int i = 0; i < 600; ++i) {
      const double x = rng.uniform(-15, 15), y = rng.uniform(-15, 15);
      const double z = 50 - std::sqrt(2500 - x * x) + r2 - std::sqrt(r2 * r2 - y * y) + 1e-3 * rng.normal();
      p.append(giPoint3(100 + x, 200 + y, 300 + z));
    }
    sets.push_back({"two axes", p});
  }
  sets.push_back({"torus patch", sample_torus(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 40, 10, 0, 0.6, -0.5, 1.0,
                                              600, 1e-3)});
  for (Data const& set : sets) {
    SCOPED_TRACE(set.name);
    gfit::detail::CentredPoints centred(set.points);
    std::vector<gfit::detail::CircleAlongDirection> fitters(1, gfit::detail::CircleAlongDirection(centred));
    gfLeastSquareCylinder problem(set.points);
    std::vector<giUnitVec3> directions(100);
    std::vector<char> used(100, 1), fitted(100);
    std::vector<gfit::detail::ProjectedCircle> circles(100);
    mlRandom random(1);
    for (int batch = 0; batch < 10; ++batch) {
      for (giUnitVec3& d : directions) d = gfit::detail::hemisphere_direction(random);
      gfit::detail::RankingWork work;
      const int ranked = gfit::detail::best_projected_circle(fitters, directions, used, circles, fitted, 2.0, 50, work);
      int stated = -1;
      double smallest = DBL_MAX;
      for (int j = 0; j < 100; ++j) {
        giPoint3 centre;
        double radius = 0.0, rms = 0.0;
        giUnitVec3 const& d = directions[j];
        if (!gfLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), d, set.points, centre, radius, rms)) continue;
        mlVector p{centre.x(), centre.y(), centre.z(), d.x(), d.y(), d.z(), radius};
        problem.normalize_parameters(p);
        problem.set_parameters(p);
        const double sum = problem.sum_of_squares();
        if (sum < smallest) {
          smallest = sum;
          stated = j;
        }
      }
      EXPECT_EQ(ranked, stated) << "batch " << batch;
    }
  }
}

// ---- refusals and reproducibility -------------------------------------------------------

TEST(CylinderEdges, RefusalsMarkTheDirection) {
  Cylinder c;
  c.direction = giUnitVec3(0, 0, 1);
  giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 1), giPoint3(0, -1, 1)};
  expect_refused(fit(four, c), c.direction);  // the entry accepts 4 points, the computation needs 5
  Rng rng(47);
  giPoint3coDynArr pts = sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 3, 3, 0, 6, 20, 0), bad = pts;
  bad[7] = giPoint3(0, INFINITY, 0);
  expect_refused(fit(bad, c), c.direction);
  expect_refused(fit(pts, giUnitVec3coDynArr{giUnitVec3(1, 0, 0)}, c), c.direction);  // too few normals
  giPoint3coDynArr three{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 1)};
  EXPECT_EQ(fit(three, c), 0);
  EXPECT_EQ(c.direction.x(), 0.0);  // below the entry's own minimum: untouched
}

TEST(CylinderEdges, BitIdenticalForAnyThreadCount) {
  Rng rng(48);
  for (int n : {2000, 6000}) {  // all points ranked; a subset
    giPoint3coDynArr pts =
        sample_cylinder(rng, giPoint3(100, 200, 300), giUnitVec3(3, -1, 2), 9, 12, 0.5, 2.5, n, 5e-3);
    expect_thread_independent([&] {
      Cylinder c;
      EXPECT_EQ(fit(pts, c), 1);
      return c.bits();
    });
  }
}

// The processor time of the thread that makes it, readable from other threads (Linux); the
// wall clock elsewhere.
class FittingThreadClock {
 public:
#if defined(__linux__)
  FittingThreadClock() { pthread_getcpuclockid(pthread_self(), &id_); }
  double seconds() const {
    timespec t;
    clock_gettime(id_, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
  }

 private:
  clockid_t id_;
#else
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }
#endif
};

// The host's flag stops a fit: at once when it is set before, within a few thousand points
// of a pass (milliseconds on a million points) when it is set while the fit runs.
TEST(CylinderEdges, ACancelledFitReturnsPromptly) {
  Rng rng(52);
  const giPoint3 point(10, 20, 30);
  const giUnitVec3 axis(0.3, -0.5, 0.81);
  giPoint3coDynArr pts = sample_cylinder(rng, point, axis, 20, 40, 0, 2 * giPi, 1000000, 1e-3);
  const int previous = gfSetMaxThreads(1);
  {
    CancelFlag cancel;
    cancel.flag = true;
    Cylinder c;
    c.direction = giUnitVec3(0, 0, 1);
    expect_refused(fit(pts, c), c.direction);
    EXPECT_EQ(gfLastReason(), gfReason::cancelled);
    gfFittedCylindercoDynArr found;
    EXPECT_EQ(gfCalculateMultipleLeastSquareCylinders(pts, giUnitVec3coDynArr(), 0.1, giAngle::from_degrees(1), 1,
                                                      found),
              0);
    EXPECT_EQ(found.count(), 0);
    EXPECT_EQ(gfLastReason(), gfReason::cancelled);
  }
  // The full search, and the refinement of a previous solution 5 degrees off (the solver
  // on all the points). The time from the flag to the return is the fitting thread's own
  // (its processor time where the platform tells it), so that a busy machine does not count.
  const giUnitVec3 tilted(giVector3(axis) + giVector3(axis.any_normal()) * std::tan(5 * giPi / 180));
  const FittingThreadClock clock;
  for (int k : {0, -1}) {
    SCOPED_TRACE(::testing::Message() << "k " << k);
    CancelFlag cancel;
    double set_at = 0.0;
    std::thread host([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      set_at = clock.seconds();
      cancel.flag = true;
    });
    Cylinder c;
    c.point = point;
    c.direction = tilted;
    c.radius = 20;
    const int status = fit(pts, c, giUnitVec3(), giAngle(), k);
    const double returned = clock.seconds();
    host.join();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(gfLastReason(), gfReason::cancelled);
    EXPECT_LT(returned - set_at, 0.1);
  }
  gfSetMaxThreads(previous);
}

}  // namespace
