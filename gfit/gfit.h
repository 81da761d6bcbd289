// gfit: geometric fitting for dimensional inspection. The whole public API.
#pragma once

// platform: geometry values, arrays, linear algebra, solvers, random numbers
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/brent.h"
#include "gfit/platform/constructions.h"
#include "gfit/platform/dynarr.h"
#include "gfit/platform/eigen_solvers.h"
#include "gfit/platform/least_squares.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/matrix.h"
#include "gfit/platform/pagearr.h"
#include "gfit/platform/parallel.h"
#include "gfit/platform/point.h"
#include "gfit/platform/quadratic_minimiser.h"
#include "gfit/platform/random.h"
#include "gfit/platform/report.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/simplex.h"
#include "gfit/platform/shared_handle.h"
#include "gfit/platform/sort.h"
#include "gfit/platform/svd.h"
#include "gfit/platform/unit_vector_differentiator.h"
#include "gfit/platform/utilities.h"
#include "gfit/platform/workplane.h"
#include "gfit/platform/xform.h"

// utilities
#include "gfit/utilities/direction_sampling.h"
#include "gfit/utilities/polygon.h"
#include "gfit/utilities/vector_utils.h"

// fit points, projectors and nominal objects (the CAD surface ones: gfit/cad.h)
#include "gfit/fitpoints/arrays.h"
#include "gfit/fitpoints/fit_point.h"
#include "gfit/fitpoints/plane_and_point.h"
#include "gfit/fitpoints/projected_point.h"
#include "gfit/fitpoints/projector.h"

// least-squares fits
#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/axis_of_revolution.h"
#include "gfit/leastsquares/circle.h"
#include "gfit/leastsquares/cone.h"
#include "gfit/leastsquares/cylinder.h"
#include "gfit/leastsquares/direct_fit.h"
#include "gfit/leastsquares/distribution_quality.h"
#include "gfit/leastsquares/ellipse.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/probed.h"
#include "gfit/leastsquares/probed_cylinder_cone.h"
#include "gfit/leastsquares/sphere.h"
#include "gfit/leastsquares/sphere_fit.h"
#include "gfit/leastsquares/torus.h"
#include "gfit/leastsquares/uncertainty.h"

// extremal fits
#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/extremal/circumscribed.h"
#include "gfit/extremal/containment_cone.h"
#include "gfit/extremal/inscribed.h"
#include "gfit/extremal/minmax.h"
#include "gfit/extremal/minimum_zone_fits.h"

// alignment
#include "gfit/alignment/affine_match.h"
#include "gfit/alignment/points_to_planes.h"
#include "gfit/alignment/points_to_points.h"
#include "gfit/alignment/surface_bestfit.h"
