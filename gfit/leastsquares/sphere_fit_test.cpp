#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

struct RowReduction : gfSphereFit {
  using gfSphereFit::matrix_rowred;
};

double relative_error(gfSphereFit const& s, giPoint3 const& c, double r) {
  return std::fmax(s.centre().distance(c), std::fabs(s.radius() - r)) / r;
}

TEST(SphereFit, ExactSpheresUpToThirtyRadiiFromTheOrigin) {
  // The normal equations are formed from uncentred sums, so accuracy falls with the
  // distance d from the origin relative to the radius r (measured: about 1e-10 at d/r = 30,
  // a few 1e-9 at 100, 1e-7 at 300).
  Rng rng(3);
  for (double r : {1e-3, 1.0, 50.0, 2000.0})
    for (double distance : {0.0, 3.0, 30.0})
      for (double cap : {giPi, 0.5 * giPi}) {
        giPoint3 c = giPoint3(0, 0, 0) + rng.direction() * (distance * r);
        giPoint3coDynArr p = sample_sphere(rng, c, r, rng.direction(), cap, 60, 0.0);
        gfSphereFit s(p);
        ASSERT_EQ(s.status(), gfDirectFitStatus::fitted);
        EXPECT_LT(relative_error(s, c, r), 1e-9) << r << " " << distance << " " << cap;
        EXPECT_LT(s.chi(), 1e-9 * r);
      }
}

TEST(SphereFit, NoisySpheresComeBackWithinTheirStatisticalError) {
  // Radial noise sigma on n points of a full sphere: centre and radius scatter by about
  // sigma * sqrt(3/n); on a hemisphere the centre along the axis is a few times worse. The
  // algebraic fit's bias (of order sigma^2 / r) is negligible at sigma / r = 1e-3.
  Rng rng(5);
  const int n = 500;
  const double r = 20.0, sigma = 0.02;
  for (double cap : {giPi, 0.5 * giPi}) {
    giPoint3 c(150, -40, 75);
    giPoint3coDynArr p = sample_sphere(rng, c, r, rng.direction(), cap, n, sigma);
    gfSphereFit s(p);
    const double tolerance = (cap < 3 ? 15.0 : 5.0) * sigma * std::sqrt(3.0 / n);
    EXPECT_LT(s.centre().distance(c), tolerance) << cap;
    EXPECT_NEAR(s.radius(), r, tolerance) << cap;
    EXPECT_NEAR(s.chi(), sigma, 0.15 * sigma);
  }
}

TEST(SphereFit, StatusesAndTheStaticEntry) {
  giPoint3coDynArr three{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1)};
  EXPECT_EQ(gfSphereFit(three).status(), gfDirectFitStatus::too_few_points);
  giPoint3 centre(7, 7, 7);
  double radius = -1.0;
  EXPECT_EQ(gfSphereFit::fit(three, centre, radius), 0);
  EXPECT_EQ(centre, giPoint3(7, 7, 7));
  EXPECT_EQ(radius, -1.0);

  giPoint3coDynArr octahedron{giPoint3(3, 2, 1), giPoint3(-1, 2, 1), giPoint3(1, 4, 1),
                              giPoint3(1, 0, 1), giPoint3(1, 2, 3),  giPoint3(1, 2, -1)};
  ASSERT_EQ(gfSphereFit::fit(octahedron, centre, radius), 1);
  EXPECT_LT(centre.distance(giPoint3(1, 2, 1)), 1e-14);
  EXPECT_NEAR(radius, 2.0, 1e-14);

  // Coplanar points determine no sphere: their system is singular, and the fit says so
  // rather than return whatever the elimination reached.
  giPoint3coDynArr flat{giPoint3(0, 0, 5), giPoint3(1, 0, 5), giPoint3(0, 1, 5), giPoint3(1, 1, 5), giPoint3(2, 3, 5)};
  EXPECT_EQ(gfSphereFit(flat).status(), gfDirectFitStatus::singular);
  const giPoint3 kept_centre = centre;
  EXPECT_EQ(gfSphereFit::fit(flat, centre, radius), 0);
  EXPECT_EQ(centre, kept_centre);

  giPoint3coDynArr bad{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, NAN, 0), giPoint3(0, 0, 1)};
  EXPECT_EQ(gfSphereFit::fit(bad, centre, radius), 0);

  giPoint3coDynArr empty;
  EXPECT_EQ(gfSphereFit(empty).chi(), DBL_MAX);
}

TEST(SphereFit, RowReductionPivotsAndSkipsSingularColumns) {
  // Needs a row swap (zero leading entry); solution (1, -2, 3).
  double m[3][4] = {{0, 2, 1, -1}, {1, 1, 1, 2}, {2, 0, -1, -1}};
  RowReduction::matrix_rowred(&m[0][0], 3, 4);
  const double solution[] = {1, -2, 3};
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(m[i][3], solution[i], 1e-15);
  // A zero column is skipped; the next pivot (row 1) still solves its unknown, and row 0
  // is eliminated to nothing.
  double s[2][3] = {{0, 2, 4}, {0, 1, 2}};
  RowReduction::matrix_rowred(&s[0][0], 2, 3);
  EXPECT_EQ((std::vector<double>{s[0][1], s[0][2], s[1][1], s[1][2]}), (std::vector<double>{0, 0, 1, 2}));
}

}  // namespace
