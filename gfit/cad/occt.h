// OpenCASCADE shapes into and out of the surface kernel, for hosts that make or keep their own
// shapes. The one gfit header that includes OpenCASCADE: a host that includes it compiles
// against OpenCASCADE's headers itself (gfit/cad.h does not include it).
#pragma once

#include <TopoDS_Shape.hxx>

#include "gfit/cad/surface.h"
#include "gfit/gfit_cad_export.h"

// A surface over a deep copy of `shape` (its faces, in the order OpenCASCADE explores them).
// A shape without faces gives a surface on which every projection is empty; a shape
// OpenCASCADE cannot copy gives an empty handle.
GFIT_CAD_EXPORT tskSurfPtr tskSurfFromShape(TopoDS_Shape const& shape);

// The surface's shape as it is now (after every transform).
GFIT_CAD_EXPORT TopoDS_Shape tskSurfShape(tskSurf const& surface);
