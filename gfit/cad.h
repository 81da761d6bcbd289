// gfit::cad: the CAD surface kernel (OpenCASCADE) and the CAD-surface nominal object.
// Link gfit::cad to use these; gfit/gfit.h is the rest of the library.
#pragma once

#include "gfit/alignment/scaled_alignment.h"
#include "gfit/fitpoints/surface_projector.h"
#include "gfit/gfit.h"
#include "gfit/platform/surface.h"
