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
#include "gfit/platform/point.h"
#include "gfit/platform/random.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/simplex.h"
#include "gfit/platform/sort.h"
#include "gfit/platform/svd.h"
#include "gfit/platform/utilities.h"
#include "gfit/platform/workplane.h"
#include "gfit/platform/xform.h"

// utilities
#include "gfit/utilities/polygon.h"
#include "gfit/utilities/vector_utils.h"

// fit points
#include "gfit/fitpoints/projected_point.h"

// least-squares fits
#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/evaluator.h"

// extremal fits
#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/extremal/circumscribed.h"
#include "gfit/extremal/containment_cone.h"
#include "gfit/extremal/inscribed.h"
#include "gfit/extremal/minmax.h"
