// The least-squares problem over point distances that every iterative fit poses.
//
// A problem has n_parameters unknowns and one signed distance per point; the solver
// (`mlLevenbergMarquardt`) minimises the sum of the squared distance terms. Element classes
// override the distance, its gradient, the normalisation of a parameter vector into
// canonical form, the number of independent parameters and the parameter scales.
//
// Parameter scales are sensitivities: scale j is about how far the distances move per unit
// change of parameter j (a unit axis direction gets the element's length). The solver uses
// them as the diagonal of its damping. The default here fills zeros, meaning "no scale
// known": the solver then takes the root-mean-square of Jacobian column j at the start.
//
// A problem object keeps the current parameters and a little scratch state, so it is not
// safe to evaluate one object from several threads; distinct objects are independent.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/matrix.h"

class GFIT_EXPORT mlDistanceLeastSquares {
 public:
  mlDistanceLeastSquares(int n_parameters, int n_points);

  int n_parameters() const { return n_parameters_; }
  int n_points() const { return n_points_; }
  mlVector const& parameters() const { return parameters_; }

  // The virtual operations, in this order.
  // Stores the current parameter vector, which the distance functions read.
  virtual void set_parameters(mlVector const& p);
  virtual void normalize_parameters(mlVector& p) const = 0;
  virtual void get_distance_and_gradient(double& d, mlVector& gradient, int i) const = 0;
  virtual void get_distance(double& d, int i) const = 0;
  // The squared distance of the point most recently evaluated through `evaluate_block` or
  // `evaluate_distances`; the objective is the sum of these terms.
  virtual double get_last_square_distance() const;
  virtual int n_independent_parameters() const;
  virtual void parameter_scales(mlVector& scales) const;
  virtual ~mlDistanceLeastSquares();

  // Batch evaluation of points [first, first + count) at the current parameters, the form
  // the solver streams through. distances[k] and squares[k] (the squared-distance term) of
  // point first + k; the gradient into jacobian[j * ld + k] (column-major, leading
  // dimension ld >= count), skipped when jacobian is null. The defaults call the per-point
  // operations; element classes may override them with a tighter loop.
  virtual void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                              int ld) const;
  virtual void evaluate_distances(int first, int count, double* distances, double* squares) const;

  // The sum of the squared-distance terms over all points at the current parameters.
  double sum_of_squares() const;

  // How well the points constrain the parameters at `parameters`: the k-th largest singular
  // value of the Jacobian with its columns divided by the parameter scales (1 where none is
  // known), over sqrt(number of points), k = n_independent_parameters(). 0 when it cannot
  // be formed or there are fewer points than k. Leaves `parameters` as the current
  // parameters.
  double point_distribution_quality(mlVector const& parameters);

 private:
  mlVector parameters_;
  int n_parameters_;
  int n_points_;
  mutable double last_distance_ = 0.0;
  mutable mlVector gradient_scratch_;
};
