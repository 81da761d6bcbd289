// Projectors and nominal objects for fitting.
//
// A projector projects fit points onto one nominal object, one by one or in batches; a nominal
// object (`gfObjectForFitting`) owns the nominal geometry, can be copied and transformed, and
// hands out projectors for itself. The base classes are the empty nominal object: its
// projector leaves every record as it was. The CAD-surface case (gfSurfaceForFitting and its
// projector) lives in cad/surface_projector.h, in the gfit::cad library.
#pragma once

#include <functional>

#include "gfit/fitpoints/fit_point.h"
#include "gfit/fitpoints/projected_point.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/shared_handle.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfFitPointProjector3 {
 public:
  // Projects `count` fit points, strictly in index order on the calling thread: for each i
  // the fit point of index i is fetched, then the record of index i, and the point's
  // `initial_projection` (flag non-zero; `xform` is then ignored) or `project_from_position`
  // (flag 0) fills the record. No copies are made and the results are not tested: an
  // unprojectable point leaves an invalid record. `count` < 1 does nothing. An empty accessor
  // raises std::bad_function_call (a programming error, not a data problem).
  virtual void project_batch(std::function<gfFitPoint3 const&(int)> const& point,
                             std::function<gfProjectedPoint3&(int)> const& record, int count, int initial,
                             giXform3 const& xform) const;
  virtual ~gfFitPointProjector3();
};

// A projector of probed points. The base `rotate_and_project` does nothing and leaves the
// record as it was: it is the projector of the empty nominal object.
class GFIT_EXPORT gfProjectorForFitting3 : public gfFitPointProjector3 {
 public:
  ~gfProjectorForFitting3() override;
  virtual void rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed, gfProjectedPoint3& out);
};

using gfProjectorForFitting3coPrf = coPrf<gfProjectorForFitting3>;

// A nominal object. The base is the empty object: `copy` makes another empty object,
// `create_projector` an owning handle to a base projector, `transform` does nothing.
class GFIT_EXPORT gfObjectForFitting {
 public:
  // A new object owned by the caller, independent of this one.
  virtual gfObjectForFitting* copy() const;
  virtual gfProjectorForFitting3coPrf create_projector();
  virtual void transform(giXform3 const& xform);
  virtual ~gfObjectForFitting();
};

// The largest distance by which `xform` moves the measured point of a valid record; invalid
// records are skipped; 0 for none. The alignment loops stop when it falls below their tolerance.
GFIT_EXPORT double get_maximum_movement(gfProjectedPoint2coDynArr const& points, giXform2 const& xform);
GFIT_EXPORT double get_maximum_movement(gfProjectedPoint3coDynArr const& points, giXform3 const& xform);
