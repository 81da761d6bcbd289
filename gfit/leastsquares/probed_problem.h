// What the probe-compensated forms of the circle, sphere, cylinder and cone share: the plain
// element's problem with each point's signed distance shifted by that point's compensation
// rho_i (+r_i for a centre touched from within, -r_i from without). The shift is a constant
// per point, so the gradient, the parameter layout, normalisation, scales and independent-
// parameter count are all the plain element's; the batch form is the element's own
// offset_block loop with the compensations as its offsets.
//
// The probed line and plane are not of this shape: they compute their own distance along a
// unit normal and subtract the compensation, so they keep their own classes.
#pragma once

#include <utility>

#include "gfit/leastsquares/distance.h"

namespace gfit::detail {

template <class Element>
class Probed : public Element {
 public:
  template <class Points>
  Probed(Points const& points, doublecoDynArr rho) : Element(points), rho_(std::move(rho)) {}

  void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
    Element::get_distance_and_gradient(d, g, i);
    d += rho_[i];
  }
  void get_distance(double& d, int i) const override {
    Element::get_distance(d, i);
    d += rho_[i];
  }
  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override {
    this->offset_block(rho_.data(), first, count, distances, squares, jacobian, ld);
  }
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

 protected:
  // The signed compensations, one per point; public in the classes that offer them.
  doublecoDynArr const& compensation() const { return rho_; }

 private:
  doublecoDynArr rho_;
};

}  // namespace gfit::detail
