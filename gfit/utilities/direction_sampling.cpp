#include "gfit/utilities/direction_sampling.h"

#include <cfloat>
#include <cmath>

#include "gfit/platform/xform.h"

namespace {
constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

// ---- ring pattern -----------------------------------------------------------------------

gfVectorGradient::gfVectorGradient(giVector3 const& centre, double angle, int rings)
    : centre_(centre), angle_(angle), n_rings_(rings), rings_(new gfVectorGradientRing[rings > 0 ? rings : 1]) {
  w_ = centre.unit();
  giVector3 r = std::fabs(w_.x()) > std::fabs(w_.y()) ? giVector3(0.0, 1.0, 0.0) : giVector3(1.0, 0.0, 0.0);
  u_ = r.cross(w_).unit();
  v_ = w_.cross(u_).unit();
  const double s = step_angle();
  for (int i = 0; i < rings; ++i) {
    rings_[i].theta = i * s;
    rings_[i].sin_theta = std::sin(rings_[i].theta);
    rings_[i].steps = i == 0 ? 1 : static_cast<int>(std::ceil(kPi / std::atan2(std::tan(s / 2.0), rings_[i].sin_theta)));
  }
}

gfVectorGradient::~gfVectorGradient() { delete[] rings_; }

gfVectorGradientIterator gfVectorGradient::iterator() const { return gfVectorGradientIterator(this); }

double gfVectorGradient::spot_radius() const { return std::tan(step_angle() / 2.0); }

int gfVectorGradient::total_steps() const {
  int total = 0;
  for (int i = 0; i < n_rings_; ++i) total += rings_[i].steps;
  return total;
}

int gfVectorGradientIterator::operator++(int) {
  if (ring_ >= gradient_->n_rings()) return 0;  // exhausted, and stays so
  if (ring_ < 0) {
    ring_ = 0;
    index_ = 0;
    count_ = 0;
  } else {
    if (++index_ >= gradient_->ring(ring_).steps) {
      ++ring_;
      index_ = 0;
      if (ring_ >= gradient_->n_rings()) return 0;
    }
    ++count_;
  }
  gfVectorGradientRing const& ring = gradient_->ring(ring_);
  phi_ = (index_ + 1) * kTwoPi / ring.steps;
  const double x = std::sin(phi_) * ring.sin_theta, y = std::cos(phi_) * ring.sin_theta, z = std::cos(ring.theta);
  vector_ = (gradient_->v() * y + gradient_->u() * x) + gradient_->w() * z;
  return 1;
}

// ---- random directions ------------------------------------------------------------------

gfRandDirGenerator::gfRandDirGenerator()
    : invalid_(1), bias_(-DBL_MAX), outside_ratio_(-DBL_MAX), cap_share_(-DBL_MAX), decay_(-DBL_MAX), random_(1) {}

gfRandDirGenerator::gfRandDirGenerator(double bias, giUnitVec3 const& centre, giAngle const& cap, double decay)
    : invalid_(0), bias_(bias), centre_(centre), cap_(cap), decay_(decay), random_(1) {
  cap_share_ = (1.0 - cap.cos()) * 0.5;
  outside_ratio_ = 2.0 / (1.0 - cap.cos()) - 1.0;
}

gfRandDirGenerator::~gfRandDirGenerator() = default;

giUnitVec3 gfRandDirGenerator::direction() {
  double q = random_.next_unit();
  giUnitVec3 d = probability_bias_region_only() <= q ? rand_vec() : rand_vec_bias_region();
  update_bias();
  return d;
}

giUnitVec3 gfRandDirGenerator::rand_vec() {
  double a, b, s;
  do {
    a = 2.0 * random_.next_unit() - 1.0;
    b = 2.0 * random_.next_unit() - 1.0;
    s = b * b + a * a;
  } while (s >= 1.0);
  const double t = 2.0 * std::sqrt(1.0 - s);
  return giUnitVec3(t * a, t * b, 2.0 * s - 1.0);
}

giUnitVec3 gfRandDirGenerator::rand_vec_bias_region() {
  giVector3 axis;
  do {
    axis = centre_.cross(rand_vec());
  } while (axis.squared_length() < 1.0000000000000002e-10);
  const double q = random_.next_unit();
  const double cos_theta = q * (1.0 - cap_.cos()) + cap_.cos();
  giXform3 turn(giXformRotate{}, giPoint3(0.0, 0.0, 0.0), axis.unit(), giAngle(giAngleCosine{}, cos_theta));
  return turn.transform(giVector3(centre_)).unit();
}

gfRandDirGenMulti::gfRandDirGenMulti() : preferred_(), count_(0), next_(-1) {}

gfRandDirGenMulti::gfRandDirGenMulti(double bias, giUnitVec3coDynArr const& preferred, giAngle const& cap,
                                     double decay)
    : gfRandDirGenerator(bias, giUnitVec3(1.0, 0.0, 0.0), cap, decay), preferred_(preferred),
      count_(preferred.count()), next_(0) {
  outside_ratio_ = 2.0 / ((1.0 - cap.cos()) * count_) - 1.0;
  cap_share_ = (1.0 - cap.cos()) * (count_ * 0.5);
}

gfRandDirGenMulti::~gfRandDirGenMulti() = default;

giUnitVec3 gfRandDirGenMulti::direction() {
  if (next_ >= 0 && next_ < count_) return preferred_[next_++];
  return gfRandDirGenerator::direction();
}

giUnitVec3 gfRandDirGenMulti::rand_vec_bias_region() {
  if (count_ <= 0) return gfRandDirGenerator::rand_vec_bias_region();  // no preferred direction to draw from
  centre_ = preferred_[random_.next() % count_];
  return gfRandDirGenerator::rand_vec_bias_region();
}
