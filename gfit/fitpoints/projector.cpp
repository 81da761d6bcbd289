#include "gfit/fitpoints/projector.h"

gfFitPointProjector3::~gfFitPointProjector3() = default;
gfProjectorForFitting3::~gfProjectorForFitting3() = default;
gfObjectForFitting::~gfObjectForFitting() = default;

void gfFitPointProjector3::project_batch(std::function<gfFitPoint3 const&(int)> const& point,
                                         std::function<gfProjectedPoint3&(int)> const& record, int count,
                                         int initial, giXform3 const& xform) const {
  for (int i = 0; i < count; ++i) {
    gfFitPoint3 const& p = point(i);
    gfProjectedPoint3& out = record(i);
    if (initial)
      p.initial_projection(out, this);
    else
      p.project_from_position(xform, out, this);
  }
}

void gfProjectorForFitting3::rotate_and_project(giXform3 const&, gfProbedPoint3 const*, gfProjectedPoint3&) {}

gfObjectForFitting* gfObjectForFitting::copy() const { return new gfObjectForFitting; }

gfProjectorForFitting3coPrf gfObjectForFitting::create_projector() {
  return gfProjectorForFitting3coPrf(new gfProjectorForFitting3);
}

void gfObjectForFitting::transform(giXform3 const&) {}

double get_maximum_movement(gfProjectedPoint2coDynArr const& points, giXform2 const& xform) {
  double largest = 0.0;
  for (gfProjectedPoint2 const& p : points) {
    if (p.invalid()) continue;
    double d = p.measured_point().distance(xform.transform(p.measured_point()));
    if (d > largest) largest = d;
  }
  return largest;
}

double get_maximum_movement(gfProjectedPoint3coDynArr const& points, giXform3 const& xform) {
  double largest = 0.0;
  for (gfProjectedPoint3 const& p : points) {
    if (p.invalid()) continue;
    double d = p.measured_point().distance(xform.transform(p.measured_point()));
    if (d > largest) largest = d;
  }
  return largest;
}
