// Every search fit, on a part measured in millimetres and on the same part in metres (each
// coordinate times 0.001, and every length given with it likewise): the element must come
// back times 0.001 to 1e-12 relatively. A threshold that carries a unit (a fixed length, a
// mean squared distance compared with a length) makes the search choose differently in one
// unit than in the other, and the answers then part by far more than rounding.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

using namespace gfit::testing;

namespace {

// An element reduced to what both units must agree on: a point (the foot of the points'
// centroid on the axis, or the centre), a direction (up to sign; unset for a sphere),
// lengths (radii, offsets), angles and the RMS residual.
struct Element {
  giPoint3 point;
  giVector3 direction;
  std::vector<double> lengths, angles;
  double residual = 0.0;
};

using Fit = std::function<bool(double unit, giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                               std::vector<Element>& out)>;

giPoint3coDynArr scaled(giPoint3coDynArr const& points, double unit) {
  giPoint3coDynArr out;
  for (giPoint3 const& q : points) out.append(giPoint3(q.x() * unit, q.y() * unit, q.z() * unit));
  return out;
}

giPoint3 centroid_of(giPoint3coDynArr const& points) {
  double x = 0, y = 0, z = 0;
  for (giPoint3 const& q : points) x += q.x(), y += q.y(), z += q.z();
  const double n = points.count();
  return giPoint3(x / n, y / n, z / n);
}

// The foot of `from` on the line through p along u.
giPoint3 foot(giPoint3 const& from, giPoint3 const& p, giUnitVec3 const& u) { return p + u * u.dot(from - p); }

Element axial(giPoint3coDynArr const& points, giPoint3 const& p, giUnitVec3 const& u, std::vector<double> lengths,
              std::vector<double> angles, double residual) {
  return Element{foot(centroid_of(points), p, u), giVector3(u), std::move(lengths), std::move(angles), residual};
}

struct Case {
  std::string name;
  giPoint3coDynArr points;  // in millimetres
  giUnitVec3coDynArr normals;
  Fit fit;
};

const giPoint3 kFar(500.0, -300.0, 200.0);
const giUnitVec3 kAxis(0.3, -0.2, 1.0);

std::vector<Case> cases() {
  std::vector<Case> all;
  const double noise = 0.01;

  auto cylinder = [&](double radius, double span, giUnitVec3coDynArr* normals) {
    Rng rng(7);
    return sample_cylinder(rng, kFar, kAxis, radius, 30.0, 0.3, span, 400, noise, normals);
  };
  auto cylinder_fit = [](bool with_guess, bool with_normals) -> Fit {
    return [=](double, giPoint3coDynArr const& pts, giUnitVec3coDynArr const& normals, std::vector<Element>& out) {
      giPoint3 p;
      giUnitVec3 u;
      double r = 0, rms = 0;
      const giUnitVec3 guess = with_guess ? giUnitVec3(0.32, -0.18, 1.0) : giUnitVec3();
      const giUnitVec3coDynArr none;
      if (!gfCalculateLeastSquareCylinder(pts, p, u, r, rms, guess, giAngle::from_degrees(20.0),
                                          with_normals ? normals : none, 0))
        return false;
      out.push_back(axial(pts, p, u, {r}, {}, rms));
      return true;
    };
  };
  {
    Case c{"cylinder, half arc", cylinder(40.0, giPi, nullptr), {}, cylinder_fit(false, false)};
    all.push_back(c);
    c = Case{"cylinder, quarter arc, guess", cylinder(40.0, giPi / 2, nullptr), {}, cylinder_fit(true, false)};
    all.push_back(c);
    giUnitVec3coDynArr part_normals;
    giPoint3coDynArr part = cylinder(25.0, 1.5 * giPi, &part_normals);
    all.push_back(Case{"cylinder, normals", part, part_normals, cylinder_fit(false, true)});
    // Short, rough arcs (17 degrees, form error 1 in 40): the search's first answer is off
    // by more than its good-enough bound, so that whether it searches on is decided by a
    // threshold; and the sum of squares is so flat along the radius and the axis position
    // together that a solver run ends with its polishing steps spent while the parameters
    // still move at 1e-7, where the start decides.
    for (unsigned seed : {29u, 31u}) {
      Rng rough_rng(seed);
      giUnitVec3coDynArr rough_normals;
      giPoint3coDynArr rough = sample_cylinder(rough_rng, kFar, kAxis, 40.0, 10.0, 0.3, 0.3, 300, 1.0, &rough_normals);
      all.push_back(Case{"cylinder, short rough arc, guess " + std::to_string(seed), rough, {}, cylinder_fit(true, false)});
      all.push_back(Case{"cylinder, short rough arc, normals " + std::to_string(seed), rough, rough_normals,
                         cylinder_fit(false, true)});
    }
    all.push_back(Case{"probed cylinder", part, {},
                       [](double unit, giPoint3coDynArr const& pts, giUnitVec3coDynArr const&, std::vector<Element>& out) {
                         doublecoDynArr radii;
                         for (int i = 0; i < pts.count(); ++i) radii.append(1.5 * unit);
                         giPoint3 p;
                         giUnitVec3 u;
                         double r = 0, rms = 0;
                         if (!gfLeastSquareEvaluator::evaluate_probed_cylinder(pts, radii, 1, p, u, r, rms, giUnitVec3(),
                                                                               giAngle::from_degrees(10.0), 0))
                           return false;
                         out.push_back(axial(pts, p, u, {r}, {}, rms));
                         return true;
                       }});
    // Normals measured with an error of about a degree, so that the normal lines miss the
    // axis by a residual well above rounding.
    giUnitVec3coDynArr tilted;
    Rng tilt(23);
    for (giUnitVec3 const& v : part_normals)
      tilted.append(giUnitVec3(giVector3(v) + giVector3(tilt.normal(), tilt.normal(), tilt.normal()) * 0.02));
    all.push_back(Case{"axis of revolution", part, tilted,
                       [](double, giPoint3coDynArr const& pts, giUnitVec3coDynArr const& normals,
                          std::vector<Element>& out) {
                         giPoint3 p(DBL_MAX, DBL_MAX, DBL_MAX);
                         giUnitVec3 u;
                         double rms = 0;
                         if (!gfLeastSquareEvaluator::evaluate_axis_rev(pts, normals, p, u, rms)) return false;
                         out.push_back(axial(pts, p, u, {}, {}, rms));
                         return true;
                       }});
  }
  {
    Rng rng(11);
    giUnitVec3coDynArr part_normals;
    const giPoint3 tip = kFar + giVector3(kAxis) * 60.0;
    giPoint3coDynArr part = sample_cone(rng, tip, kAxis, 0.4, 20.0, 70.0, 0.2, 1.6 * giPi, 400, noise, &part_normals);
    auto cone_fit = [](bool with_normals, bool probed) -> Fit {
      return [=](double unit, giPoint3coDynArr const& pts, giUnitVec3coDynArr const& normals,
                 std::vector<Element>& out) {
        giPoint3 apex;
        giUnitVec3 u;
        double theta = 0, rms = 0;
        int status = 0;
        if (probed) {
          doublecoDynArr radii;
          for (int i = 0; i < pts.count(); ++i) radii.append(1.5 * unit);
          status = gfLeastSquareEvaluator::evaluate_probed_cone(pts, radii, 1, giPoint3coDynArr(), apex, u, theta, rms,
                                                                giUnitVec3(), giAngle::from_degrees(10.0), 0);
        } else {
          status = gfCalculateLeastSquareCone(pts, apex, u, theta, rms, giUnitVec3(), giAngle::from_degrees(20.0),
                                              with_normals ? normals : giUnitVec3coDynArr(), 0);
        }
        if (!status) return false;
        Element e = axial(pts, apex, u, {}, {theta}, rms);
        e.lengths.push_back(apex.distance(e.point));  // the apex along the axis
        out.push_back(e);
        return true;
      };
    };
    all.push_back(Case{"cone", part, part_normals, cone_fit(false, false)});
    all.push_back(Case{"cone, normals", part, part_normals, cone_fit(true, false)});
    all.push_back(Case{"probed cone", part, part_normals, cone_fit(false, true)});
  }
  {
    Rng rng(13);
    giPoint3coDynArr part = sample_torus(rng, kFar, kAxis, 60.0, 12.0, 0.1, 1.2 * giPi, -1.0, 2.5, 400, noise);
    auto torus_fit = [](bool with_guess) -> Fit {
      return [=](double unit, giPoint3coDynArr const& pts, giUnitVec3coDynArr const&, std::vector<Element>& out) {
        giPoint3 centre = with_guess ? giPoint3(kFar.x() * unit + 0.5 * unit, kFar.y() * unit, kFar.z() * unit)
                                     : giPoint3();
        giUnitVec3 u = with_guess ? giUnitVec3(0.31, -0.21, 1.0) : giUnitVec3();
        double r1 = 0, r2 = 0, rms = 0;
        const int status = with_guess
                               ? gfLeastSquareEvaluator::evaluate_torus_with_guess(pts, centre, u, r1, r2, rms)
                               : gfLeastSquareEvaluator::evaluate_torus(pts, centre, u, r1, r2, rms);
        if (!status) return false;
        out.push_back(Element{centre, giVector3(u), {r1, r2}, {}, rms});
        return true;
      };
    };
    all.push_back(Case{"torus", part, {}, torus_fit(false)});
    all.push_back(Case{"torus, guess", part, {}, torus_fit(true)});
  }
  {
    Rng rng(17);
    giPoint3coDynArr part = sample_sphere(rng, kFar, 35.0, kAxis, 1.0, 400, noise);
    all.push_back(Case{"sphere", part, {},
                       [](double, giPoint3coDynArr const& pts, giUnitVec3coDynArr const&, std::vector<Element>& out) {
                         giPoint3 centre;
                         double r = 0, rms = 0;
                         if (!gfLeastSquareEvaluator::evaluate_sphere(pts, centre, r, rms)) return false;
                         out.push_back(Element{centre, giVector3(), {r}, {}, rms});
                         return true;
                       }});
  }
  {
    // Several elements in one set: each is within the tolerance on all the points, so the
    // set holds one element; the search is asked for two.
    Rng rng(19);
    const giUnitVec3 other(1.0, 0.2, -0.1);
    giPoint3coDynArr part = sample_cylinder(rng, kFar, kAxis, 20.0, 40.0, 0.0, 1.5 * giPi, 600, noise);
    all.push_back(Case{"several cylinders", part, {},
                       [](double unit, giPoint3coDynArr const& pts, giUnitVec3coDynArr const&,
                          std::vector<Element>& out) {
                         gfFittedCylindercoDynArr found;
                         const int count = gfCalculateMultipleLeastSquareCylinders(
                             pts, giUnitVec3coDynArr(), 0.05 * unit, giAngle::from_degrees(2.0), 2, found);
                         if (count == 0) return false;
                         for (gfFittedCylinder const& c : found)
                           out.push_back(axial(pts, c.axis_point(), c.axis_dir(), {c.radius()}, {}, c.deviation()));
                         return true;
                       }});
    giPoint3coDynArr cones = sample_cone(rng, kFar, other, 0.5, 20.0, 60.0, 0.0, 1.5 * giPi, 600, noise);
    all.push_back(Case{"several cones", cones, {},
                       [](double unit, giPoint3coDynArr const& pts, giUnitVec3coDynArr const&,
                          std::vector<Element>& out) {
                         gfFittedConecoDynArr found;
                         const int count = gfCalculateMultipleLeastSquareCones(
                             pts, giUnitVec3coDynArr(), 0.05 * unit, giAngle::from_degrees(2.0), 2, found);
                         if (count == 0) return false;
                         for (gfFittedCone const& c : found) {
                           Element e = axial(pts, c.apex(), c.axis_dir(), {}, {c.half_angle().radians()}, c.deviation());
                           e.lengths.push_back(c.apex().distance(e.point));
                           out.push_back(e);
                         }
                         return true;
                       }});
  }
  return all;
}

// |a - b| within 1e-12 of `size`: lengths relative to the part (a coordinate of a part
// far from the origin has no more digits than the part's own size and its position give).
void expect_length(double mm, double m, double size, char const* what) {
  EXPECT_LE(std::fabs(mm * 1e-3 - m), 1e-12 * size) << what << ": " << mm * 1e-3 << " against " << m;
}

TEST(UnitScale, EverySearchGivesTheSameElementInMillimetresAndMetres) {
  for (Case const& c : cases()) {
    SCOPED_TRACE(c.name);
    std::vector<Element> mm, m;
    ASSERT_TRUE(c.fit(1.0, c.points, c.normals, mm));
    ASSERT_TRUE(c.fit(1e-3, scaled(c.points, 1e-3), c.normals, m));
    ASSERT_EQ(mm.size(), m.size());
    for (size_t k = 0; k < mm.size(); ++k) {
      Element const& a = mm[k];
      Element const& b = m[k];
      const double position = std::fmax(std::fabs(a.point.x()), std::fmax(std::fabs(a.point.y()), std::fabs(a.point.z())));
      expect_length(a.point.x(), b.point.x(), position, "point x");
      expect_length(a.point.y(), b.point.y(), position, "point y");
      expect_length(a.point.z(), b.point.z(), position, "point z");
      const double sign = a.direction.dot(b.direction) < 0.0 ? -1.0 : 1.0;
      EXPECT_LE((a.direction - b.direction * sign).length(), 1e-12) << "direction";
      ASSERT_EQ(a.lengths.size(), b.lengths.size());
      for (size_t i = 0; i < a.lengths.size(); ++i) expect_length(a.lengths[i], b.lengths[i], std::fabs(a.lengths[i]), "length");
      for (size_t i = 0; i < a.angles.size(); ++i) EXPECT_NEAR(a.angles[i], b.angles[i], 1e-12) << "angle";
      expect_length(a.residual, b.residual, a.residual, "residual");
    }
  }
}

}  // namespace
