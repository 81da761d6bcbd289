// The typed arrays of the fitting records: dynamic arrays by value and paged arrays of shared
// handles. The result records of the cylinder and cone fits and the RPS data are declared by
// their own headers; their arrays are named here so that every array has one home.
#pragma once

#include "gfit/fitpoints/fit_point.h"
#include "gfit/fitpoints/plane_and_point.h"
#include "gfit/fitpoints/projected_point.h"
#include "gfit/platform/dynarr.h"
#include "gfit/platform/pagearr.h"

class gfRPSData;
class gfFittedCone;
class gfFittedCylinder;

using gfPlaneAndPointcoDynArr = coDynArr<gfPlaneAndPoint>;
using gfLineAndPointcoDynArr = coDynArr<gfLineAndPoint>;
using gfRPSDatacoDynArr = coDynArr<gfRPSData>;
using gfFittedConecoDynArr = coDynArr<gfFittedCone>;
using gfFittedCylindercoDynArr = coDynArr<gfFittedCylinder>;
// gfProjectedPoint3coDynArr and gfProjectedPoint2coDynArr: fitpoints/projected_point.h;
// gfFitPoint3PtrcoPageArr and gfFitPoint2PtrcoPageArr: fitpoints/fit_point.h.
