// Trial axis directions for the searches over axes.
//
// gfVectorGradient: a deterministic pattern of directions in rings about a centre direction,
// out to a cone of full apex angle `angle`. Ring i lies at polar angle i*s from the centre,
// s = angle / (2 (rings - 1)); ring 0 is the centre itself and ring i >= 1 has
// ceil(pi / atan2(tan(s/2), sin(i s))) directions, so neighbouring directions are about s
// apart everywhere. (Three rings at angle 0.4: 1 + 7 + 13 = 21 directions.)
//
// gfRandDirGenerator: pseudo-random directions (seed 1 at every construction) biased towards
// a spherical cap about a preferred direction; the bias decays towards uniform sampling with
// every draw. gfRandDirGenMulti: the same about several preferred directions, which it
// hands out first.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/random.h"

struct gfVectorGradientRing {
  double theta = 0.0;      // polar angle from the centre
  double sin_theta = 0.0;
  int steps = 0;           // directions on the ring
};

class gfVectorGradientIterator;

class GFIT_EXPORT gfVectorGradient {
 public:
  // `rings` >= 2 (one ring would make the step angle a division by zero).
  gfVectorGradient(giVector3 const& centre, double angle, int rings);
  gfVectorGradient(gfVectorGradient const&) = delete;
  gfVectorGradient& operator=(gfVectorGradient const&) = delete;
  virtual ~gfVectorGradient();

  gfVectorGradientIterator iterator() const;
  double step_angle() const { return angle_ / (2.0 * (n_rings_ - 1)); }
  double spot_radius() const;  // tan(step_angle / 2)
  int total_steps() const;

  int n_rings() const { return n_rings_; }
  gfVectorGradientRing const& ring(int i) const { return rings_[i]; }
  giUnitVec3 const& u() const { return u_; }
  giUnitVec3 const& v() const { return v_; }
  giUnitVec3 const& w() const { return w_; }

 private:
  giVector3 centre_;
  giUnitVec3 u_, v_, w_;
  double angle_;
  int n_rings_;
  gfVectorGradientRing* rings_;
};

// Walks a gfVectorGradient ring by ring: advance with `it++` (or `it()`) while it returns 1,
// reading `vector()` after each advance. The first direction is the centre itself.
class GFIT_EXPORT gfVectorGradientIterator {
 public:
  explicit gfVectorGradientIterator(gfVectorGradient const* gradient) : gradient_(gradient) {}
  int operator++(int);
  int operator()() { return (*this)++; }
  giVector3 const& vector() const { return vector_; }
  int count() const { return count_; }

 private:
  double phi_ = 0.0;
  giVector3 vector_;
  gfVectorGradient const* gradient_;
  int ring_ = -1;
  int index_ = 0;
  int count_ = 0;
};

class GFIT_EXPORT gfRandDirGenerator {
 public:
  // Invalid: `invalid()` returns 1.
  gfRandDirGenerator();
  // bias: the ratio of sampling densities inside and outside the cap; centre and cap
  // half-angle: the cap; decay: the factor by which (bias - 1) shrinks per draw.
  gfRandDirGenerator(double bias, giUnitVec3 const& centre, giAngle const& cap, double decay);

  virtual int invalid() const { return invalid_; }
  // The next direction: from the cap alone with probability probability_bias_region_only(),
  // otherwise uniform over the sphere; the bias decays after every call.
  virtual giUnitVec3 direction();
  // Uniform over the cap's area.
  virtual giUnitVec3 rand_vec_bias_region();
  virtual ~gfRandDirGenerator();

  // Uniform over the sphere (Marsaglia's method).
  giUnitVec3 rand_vec();
  // The probability of a cap-only draw that puts a share bias f / (bias f + 1 - f) of the
  // directions in the cap, f being the cap's share of the sphere.
  double probability_bias_region_only() const { return (bias_ / (bias_ + outside_ratio_) - cap_share_) / (1.0 - cap_share_); }
  void update_bias() { bias_ = (bias_ - 1.0) * decay_ + 1.0; }
  double bias() const { return bias_; }

 protected:
  int invalid_;
  double bias_;
  giUnitVec3 centre_;
  giAngle cap_;
  double outside_ratio_;
  double cap_share_;
  double decay_;
  mlRandom random_;
};

class GFIT_EXPORT gfRandDirGenMulti : public gfRandDirGenerator {
 public:
  gfRandDirGenMulti();
  // The caps' joint share of the sphere is taken as count times one cap (overlaps ignored).
  gfRandDirGenMulti(double bias, giUnitVec3coDynArr const& preferred, giAngle const& cap, double decay);

  int invalid() const override { return invalid_; }
  // The preferred directions first, in order (no draw, no bias update); then as the base.
  giUnitVec3 direction() override;
  // The cap about one preferred direction, chosen by a draw.
  giUnitVec3 rand_vec_bias_region() override;
  ~gfRandDirGenMulti() override;

 private:
  giUnitVec3coDynArr preferred_;
  int count_;
  int next_;
};
