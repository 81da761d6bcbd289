// Why an entry returned 0, and how a host stops a long fit.
//
// Every fitting entry keeps its status values (1 fitted, 0 refused or failed) and its
// signatures. When it returns 0 it also records, for the calling thread, a reason code and
// a short message; a host that wants to tell its user why reads them right after the call:
//
//   if (gfLeastSquareEvaluator::evaluate_sphere(points, c, r, rms) == 0)
//     log("sphere: %s", gfLastReasonText());
//
// The record is per thread, so concurrent fits on different threads never see each other's
// reasons. An entry that succeeds sets the reason to gfReason::none, so a stale reason from an
// earlier call is never mistaken for the current one.
//
// Cancellation: a host hands the calling thread a flag (gfSetCancelFlag); a running search
// polls it between candidates and between solver iterations, and when it is set the entry
// returns 0 promptly with gfReason::cancelled. Worker threads started by the fit poll the
// flag of the thread that called the entry. The flag is only read, never written, by gfit.
#pragma once

#include <atomic>

#include "gfit/gfit_export.h"

enum class gfReason : int {
  none = 0,               // no refusal: the last entry on this thread succeeded
  too_few_points,         // fewer points than the element needs
  non_finite_input,       // a NaN or infinite coordinate, radius, weight or limit
  bad_companion_array,    // normals, radii or weights not one per point
  bad_probe_radius,       // a probe radius that is negative or not finite
  not_determined,         // the points do not determine the element (coincident, collinear,
                          // coplanar, or a size beyond any measured feature)
  out_of_range,           // coordinates so large that their squares overflow
  no_convergence,         // the solver or search found no acceptable element
  cancelled,              // the host's cancel flag was set while the fit ran
  invalid_argument,       // an argument other than the points is unusable (a zero normal, ...)
  failed,                 // any other failure, described by the message
};

// The reason and message the last refusing entry on this thread recorded.
GFIT_EXPORT gfReason gfLastReason();
GFIT_EXPORT char const* gfLastReasonText();
// A fixed name for each reason code ("too few points", "cancelled", ...).
GFIT_EXPORT char const* gfReasonName(gfReason reason);

// Sets the cancel flag polled by fits started on this thread (nullptr: none) and returns the
// previous one. The flag must outlive the fits that poll it.
GFIT_EXPORT std::atomic<bool> const* gfSetCancelFlag(std::atomic<bool> const* flag);

// Records `reason` with `message` (a string literal or other static text; nullptr: the
// reason's name) for this thread, as a refusing entry does; gfReason::none records a success.
// The record's one writer: gfit's entries write through it, and so do those of libraries built
// on gfit (gfit::cad), so that gfLastReason reads one record whichever library refused.
GFIT_EXPORT void gfSetLastReason(gfReason reason, char const* message = nullptr);

namespace gfit::detail {

// Records `reason` with `message` (see gfSetLastReason) and returns 0, so a refusal reads
// `return refuse(...)`.
inline int refuse(gfReason reason, char const* message = nullptr) {
  gfSetLastReason(reason, message);
  return 0;
}
// Records success (gfReason::none) and returns `status` unchanged.
inline int succeed(int status = 1) {
  gfSetLastReason(gfReason::none);
  return status;
}
// True once the flag handed to this thread (or to the thread whose fit spawned this worker)
// is set. Cheap enough to call per candidate or per solver iteration.
GFIT_EXPORT bool cancelled();
// The calling thread's flag, for handing to worker threads.
GFIT_EXPORT std::atomic<bool> const* cancel_flag();

}  // namespace gfit::detail
