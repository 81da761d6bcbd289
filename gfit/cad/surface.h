// The surface kernel: CAD surfaces (one face or a whole part of many faces), the projection of
// points onto them and their outward normals. Built on OpenCASCADE, in the gfit::cad library;
// no OpenCASCADE header is needed to use it. Hosts that make or keep their own OpenCASCADE
// shapes hand them in and take them out through gfit/cad/occt.h, the one header that does.
//
// Lengths are in millimetres: STEP and IGES files are converted on reading, BREP files carry
// no unit and are taken as millimetres.
//
// Projection returns every foot point of the point on every face: the points F of the face
// where P - F is normal to the surface (minima, maxima and saddles of the distance on analytic
// faces; the nearest one on free-form faces, see `project`). Faces are trimmed: a foot point
// outside the face's boundary (by more than the face's tolerance) is not one. The list is
// ordered nearest first; ties keep the lower face index, then the kernel's order within the
// face; a foot point within 1e-7 of an earlier one is dropped.
//
// Thread safety: a surface is immutable while it is projected, and any number of threads may
// project onto one surface at once, each with its own tskSurfPointList (a list keeps the
// evaluators of the faces it visited; they are never shared). `transform` changes the surface
// in place and must not run while another thread projects onto it. Reading files goes through
// OpenCASCADE's process-wide reader settings and is serialised inside the kernel.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gfit/gfit_cad_export.h"
#include "gfit/platform/dynarr.h"
#include "gfit/platform/point.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/xform.h"

class tskSurf;
using tskSurfPtr = std::shared_ptr<tskSurf>;

namespace gfit::detail {
struct SurfData;
struct SurfWorkspace;
struct SurfAccess;  // the kernel's own door to a surface's shape (gfit/cad/occt.h)
}  // namespace gfit::detail

// One foot point of a projection.
struct tskSurfPoint {
  giPoint3 point;         // on the face
  double distance = 0.0;  // from the projected point
  int face = -1;          // index of the face in its surface (0 .. n_faces() - 1)
  double u = 0.0, v = 0.0;  // parameters of the point on the face's underlying surface
};

// The foot points of one projection, nearest first. A list also keeps, privately, the
// evaluators of the faces it was filled from, so reusing one list for many points of the same
// surface is much faster than a fresh list per point. Copies take the points only.
class GFIT_CAD_EXPORT tskSurfPointList {
 public:
  tskSurfPointList();
  tskSurfPointList(tskSurfPointList const& other);
  tskSurfPointList& operator=(tskSurfPointList const& other);
  ~tskSurfPointList();

  int count() const { return points_.count(); }
  bool empty() const { return points_.count() == 0; }
  tskSurfPoint const& operator[](int i) const { return points_[i]; }
  void clear() { points_.clear(0); }

 private:
  friend class tskSurf;
  coDynArr<tskSurfPoint> points_;
  std::unique_ptr<gfit::detail::SurfWorkspace> workspace_;
};

class GFIT_CAD_EXPORT tskSurf {
 public:
  // Reads a STEP (.step, .stp), IGES (.iges, .igs) or BREP (.brep, .brp) file, chosen by the
  // extension (any case). A missing, unreadable or malformed file, or one without any shape,
  // gives an empty handle and a message in `error`. OpenCASCADE's console output is silenced.
  //
  // Files are untrusted: OpenCASCADE's transfer dereferences what a malformed file leaves null
  // or out of range. STEP and IGES files whose entities fail OpenCASCADE's own checks are
  // refused before the transfer; what the checks miss runs under a fault guard, so that such
  // a file gives an error instead of ending the process. What the guard does to the host, on POSIX systems: for the
  // duration of the call only, it replaces the process's handlers of SIGSEGV, SIGBUS, SIGFPE
  // and SIGILL with one that turns a fault of the reading thread into OpenCASCADE's failure
  // (a long jump to its OCC_CATCH_SIGNALS) and hands a fault of any other thread to the
  // handler the host had installed (or, for the default action, back to the system); it gives
  // the reading thread an alternate signal stack if it has none, so that a stack overflow is
  // caught too. On return the host's handlers, alternate stack and floating-point environment
  // are exactly as before; nothing else (SIGINT, SIGTERM, floating-point traps) is touched,
  // and OSD::SetSignal is not called, so a host that set its own handlers keeps them. A host
  // that installs fault handlers while a file is being read on another thread has them
  // replaced when the read ends. On Windows the reading thread's structured-exception
  // translator is set (OSD::SetThreadLocalSignal), which needs a host built with /EHa.
  // The guard keeps the host alive, not the reader's memory tidy: a file that faults leaks
  // what OpenCASCADE had allocated for it, and a fault inside the heap itself cannot be
  // recovered. Reading never hangs on the files tested so far, but a read cannot be cancelled.
  static tskSurfPtr read(std::string const& path, std::string& error);
  // Writes the surface as STEP, IGES or BREP (by extension); false with a message on failure.
  bool write(std::string const& path, std::string& error) const;

  // A deep copy: transforming either leaves the other alone.
  tskSurfPtr copy() const;
  // Applies `xform` (after any earlier transform) to the surface the handle refers to, in
  // place, so every holder of the handle sees it. Rigid motions and uniform scales keep every
  // face's kind. A non-uniform scale (or any other affine map) keeps planes planar and turns a
  // cylinder whose axis the map keeps perpendicular to its sections (for example one along z
  // under a scale in x and y) into an exact elliptic cylinder; other faces become B-spline
  // faces. An empty handle or an unset or identity transform does nothing. Returns false,
  // leaving the surface as it was, when OpenCASCADE cannot make the transformed faces.
  static bool transform(tskSurfPtr& surface, giXform3 const& xform);

  int n_faces() const;
  // The bounding box of all faces (empty without faces).
  giBox3 box() const;

  // Given one foot point, the distance beyond which no foot point can change the caller's
  // answer any more (DBL_MAX when this one settles nothing); `project` then skips the faces
  // whose bounding box lies farther away.
  using Cutoff = std::function<double(tskSurfPoint const&)>;

  // Clears `feet` and fills it with the foot points of `p` (see the file comment). A face whose
  // nearest point lies on its boundary (p beyond it) contributes that point as well. Faces are
  // visited nearest bounding box first. With `cutoff`, faces whose bounding box is farther than
  // the smallest cutoff of the foot points found are skipped: the list then holds every foot
  // point up to that distance (identical to the full list there) and possibly some beyond.
  // On B-spline and other free-form faces the nearest sample of a grid over the face (found
  // through a UB-tree) is refined by Newton steps: the face gives its nearest foot point only;
  // its other minima, maxima and saddles are not searched for (a full search costs ten times
  // more and can still miss saddles). A non-finite point has no foot point.
  void project(giPoint3 const& p, tskSurfPointList& feet, Cutoff const& cutoff = {}) const;

  // The outward normal of the face (in its solid: reversed faces are taken into account) at a
  // foot point. False where the normal is not defined: within `distance_tolerance` of a
  // singular point of the geometry (the apex of a cone, the axis of a degenerate torus), or,
  // on free-form faces, where a first derivative is shorter than `distance_tolerance` or the
  // two make an angle below `angle_tolerance` (radians).
  bool normal(tskSurfPoint const& foot, double distance_tolerance, double angle_tolerance, giUnitVec3& n) const;

  ~tskSurf();
  tskSurf(tskSurf const&) = delete;
  tskSurf& operator=(tskSurf const&) = delete;

 private:
  friend struct gfit::detail::SurfAccess;
  tskSurf();
  std::unique_ptr<gfit::detail::SurfData> data_;
  std::uint64_t serial_;  // changes with every rebuild, so that workspaces know to start again
};
