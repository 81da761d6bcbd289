// 2-D circle constructions: the circle tangent to three given circles (the problem of
// Apollonius), in closed form.
//
// A solution circle (c, R) touches a given circle (p, r) either from outside
// ("external": |c - p| = R + r, the given circle lies outside the solution) or around it
// ("enclosing": |c - p| = R - r, the given circle lies inside the solution). Choosing one of
// the two for each of three given circles gives eight sign combinations; each has at most
// two solutions with R >= 0.
//
// Method: with t_i = +r_i (external) or -r_i (enclosing) the conditions are
// |c - p_i|^2 = (R + t_i)^2. Subtracting the first from the others leaves two equations
// linear in c and R, so c = u + v R, and the first condition becomes a quadratic in R
// (solved without cancellation). Work is done relative to the first centre so that circles
// far from the origin keep their digits. When the three centres are collinear the linear
// equations fix the centre's position along their line and R, and the two solutions are
// mirror images across the line.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/point.h"

// A circle of the constructions library: centre and radius. A centre with coordinates at
// +DBL_MAX (the default) means "no such circle".
class cnxCircle2 {
 public:
  cnxCircle2() : radius_(0.0) {}
  cnxCircle2(giPoint2 const& centre, double radius) : centre_(centre), radius_(radius) {}

  giPoint2 const& centre() const { return centre_; }
  double radius() const { return radius_; }
  void set_centre(giPoint2 const& c) { centre_ = c; }
  void set_radius(double r) { radius_ = r; }
  // x at either extreme double, or y at +DBL_MAX.
  bool invalid() const { return centre_.invalid(); }

 private:
  giPoint2 centre_;
  double radius_;
};

// How a given circle takes part in a construction.
enum cnxTangent {
  // Touch the circle; on which side is chosen by the selector (see construct).
  cnx_tangent = 0,
  // Pass through the circle's centre: the circle is taken as a point (its radius ignored).
  cnx_through_centre = 1,
};

class GFIT_EXPORT cnxCircle2Constructor {
 public:
  // Selector bits of `construct`:
  //   bit 1 (2)  the solution encloses the first given circle  (|c - p_a| = R - r_a),
  //   bit 2 (4)  ... the second given circle,
  //   bit 3 (8)  ... the third given circle;
  //              a clear bit asks for external tangency (|c - p| = R + r);
  //   bit 0 (1)  of two solutions, take the one with the larger radius (clear: the smaller).
  // So 0 asks for the smallest circle touching all three from outside (the empty circle
  // between three probe balls), and 14 for the smallest circle enclosing all three. Both
  // make the "extended distances" |c - p_i| + s r_i equal to R (s = -1 for 0, s = +1 for
  // 14). When the centres are collinear the two solutions have one radius; bit 0 clear then
  // takes the one to the left of the line from the first centre to the farthest other
  // centre, set the one to the right.
  static constexpr int enclose_first = 2;
  static constexpr int enclose_second = 4;
  static constexpr int enclose_third = 8;
  static constexpr int larger_solution = 1;
  static constexpr int enclose_all = enclose_first | enclose_second | enclose_third;  // 14

  // The circle tangent to a, b and c as the tangent kinds and the selector ask (kind
  // `cnx_through_centre` makes that circle a point, whichever its selector bit). A solution
  // needs R >= 0, and R >= r_i for an enclosed circle i. Returns false and writes a circle
  // whose centre is at +DBL_MAX (`invalid()`) when there is none: selector outside
  // [0, 15], negative or non-finite input radii, non-finite centres, or no real solution
  // (for example three equal circles with collinear centres).
  static bool construct(cnxCircle2& result, cnxTangent kind_a, cnxCircle2 const& a, cnxTangent kind_b,
                        cnxCircle2 const& b, cnxTangent kind_c, cnxCircle2 const& c, int selector);
};
