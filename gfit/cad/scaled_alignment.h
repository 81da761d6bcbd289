// Alignment of a measured cloud to a nominal object that may also be scaled differently
// along x and y (shrinkage), in the gfit::cad library.
//
// `get_alignment` alternates a rigid surface best fit, whose last step also estimates the x
// and y scale factors from the residuals (sx = 1 + sum e_x m_x / sum m_x^2, clamped to
// [0.7, 1.3], likewise y), with a rescaling of a copy of the nominal object about the world
// origin. A rescaled copy is kept only while it lowers the mean squared deviation; the first
// pass that does not stops the passes. The measured points are treated as surface points:
// zero probe radius, approximate normal (1, 0, 0) moved with the cloud.
//
// The rough transform, when passed unset, comes from the point pairs (second array's point
// i, first array's point i): it takes the second array's points (measured) onto the first's
// (nominal), and it is applied to the cloud before anything else.
//
// Ownership: the caller owns the object passed by pointer; when a scaled copy is accepted,
// the call deletes the caller's object and stores the copy in its place. The tskSurfPtr form
// wraps the surface and writes the (possibly scaled) surface back.
//
// Bad input: a null object (or pointer to one), a negative number of passes or steps leave
// every output untouched; pair arrays of different lengths leave the rough transform as it
// was. Measured points that are not finite do not project and take no part.
#pragma once

#include "gfit/alignment/surface_bestfit.h"
#include "gfit/fitpoints/projector.h"
#include "gfit/gfit_cad_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/cad/surface.h"

class GFIT_CAD_EXPORT gfBestfitAlignmentWithScale {
 public:
  // Pairs (second[i], first[i]) for every i of `first`; false when the pairs do not fix a
  // transform (collinear, or `second` shorter than `first`).
  static bool find_rough_alignment(giPoint3coPageArr const& first, giPoint3coPageArr const& second, giXform3& rough);

  static void get_alignment(gfObjectForFitting** object, giPoint3coPageArr const& first,
                            giPoint3coPageArr const& second, giPoint3coPageArr const& cloud, double tol, int steps,
                            giXform3& rough, giXform3& result, double& scale_x, double& scale_y, int passes);
  static void get_alignment(tskSurfPtr& surface, giPoint3coPageArr const& first, giPoint3coPageArr const& second,
                            giPoint3coPageArr const& cloud, double tol, int steps, giXform3& rough, giXform3& result,
                            double& scale_x, double& scale_y, int passes);

 private:
  static void get_refined_xform(gfSurfaceBestfit& bestfit, double tol, int steps, giXform3& xform, double& msd,
                                double& scale_x, double& scale_y);
  static double get_square_deviation(gfFitPoint3PtrcoPageArr const& points, giXform3 const& xform,
                                     gfProjectorForFitting3& projector);
};
