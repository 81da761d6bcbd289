// The narrowest circular cone (unit axis, half-angle) containing a set of unit directions:
// the spherical counterpart of the smallest enclosing circle. Used to ask whether a set of
// surface normals admits a common direction.
//
// Method: a randomised incremental construction with support sets of one, two or three
// directions (after Welzl 1991). The directions are shuffled from the back with mlRandom
// seeded with 1, so two runs on one input give the same cone and the same permutation.
// Whenever the cone grows the scan starts again from the first direction. Expected time is
// linear in the number of directions for directions in general position.
//
// The cone through two directions has their normalised sum as its axis; the cone through
// three has the normal of the plane through their tips. Cones wider than a hemisphere are
// refused: `solve` returns 0 for two opposite directions, three directions coplanar with the
// origin, a three-direction cone with half-angle above pi/2 - 1e-7, or a support update with
// no candidate that holds the other support directions within 1e-7 radians. Directions
// within squared distance 1e-5 of a support direction are taken as duplicates of it. A
// refusal records its reason (gfit/platform/report.h): no directions, an unset or
// non-finite direction, or a set no cone narrower than a hemisphere holds.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"

class GFIT_EXPORT gfContainmentCone {
 public:
  explicit gfContainmentCone(giUnitVec3coDynArr const& directions) : directions_(directions) {}

  // 1 with the cone in `axis` and `angle` (radians); 0 for no directions, an unset or
  // non-finite direction (refused before anything is permuted) or a refused set,
  // with `axis` and `angle` holding the last cone accepted. Permutes the held copy of the
  // directions.
  int solve(giUnitVec3& axis, giAngle& angle);
  // The reference that `solve` is checked against: every cone through two or three of the
  // directions is tried and the narrowest that holds all of them (within 1e-12 radians)
  // kept. Quartic in the number of directions; for tests. Does not permute.
  int solve_slow_and_simple_for_utest(giUnitVec3& axis, giAngle& angle);

  // The held directions, in the order the last `solve` left them.
  giUnitVec3coDynArr const& directions() const { return directions_; }

 protected:
  struct Cone {
    giUnitVec3 axis = giUnitVec3(0.0, 0.0, 1.0);
    double angle = 2.0 * giPi;  // no cone yet
  };
  // A candidate cone with the support it would take.
  struct Candidate {
    Cone cone;
    int support_count = 0;
    int support[3] = {0, 0, 0};
  };

  Cone exact_cone1(giUnitVec3 const& a) const;
  Cone exact_cone2(giUnitVec3 const& a, giUnitVec3 const& b);
  Cone exact_cone3(giUnitVec3 const& a, giUnitVec3 const& b, giUnitVec3 const& c);
  // Inside when the angle from the axis exceeds the half-angle by `excess` <= 0.
  static bool inside_cone(giUnitVec3 const& direction, Cone const& cone, double& excess);
  bool in_support(int i) const;
  Candidate update_support1(int i);
  Candidate update_support2(int i);
  Candidate update_support3(int i);
  // The candidate for the current support grown by direction i.
  Candidate update_support(int i);

 private:
  giUnitVec3 const& dir(int i) const { return directions_[i]; }
  // No unset or non-finite direction.
  bool valid_directions() const;

  giUnitVec3coDynArr directions_;
  int support_count_ = 0;
  int support_[3] = {0, 0, 0};
  int success_ = 1;
};
