// gfit::cad: the CAD surface kernel (OpenCASCADE) and the CAD-surface nominal object.
// Link gfit::cad to use these; gfit/gfit.h is the rest of the library.
#pragma once

#include "gfit/cad/scaled_alignment.h"
#include "gfit/cad/surface_projector.h"
#include "gfit/gfit.h"
#include "gfit/cad/surface.h"
