#include "gfit/cad/scaled_alignment.h"

#include <cmath>

#include "gfit/alignment/points_to_points.h"
#include "gfit/cad/surface_projector.h"
#include "gfit/platform/report.h"
#include "gfit/utilities/vector_utils.h"

namespace {
constexpr double min_scale = 0.7, max_scale = 1.3;
constexpr double tiny = 1e-7;

double clamp_scale(double s) { return s < min_scale ? min_scale : (s > max_scale ? max_scale : s); }

void build_points(giPoint3coPageArr const& cloud, giXform3 const& x, gfFitPoint3PtrcoPageArr& points) {
  points.clear(0);
  giUnitVec3 normal = (x * giVector3(1, 0, 0)).unit();
  for (int i = 0; i < cloud.count(); ++i) points.append(gfFitPoint3coPrf(new gfProbedPoint3(x * cloud[i], normal, 0.0)));
}
}  // namespace

bool gfBestfitAlignmentWithScale::find_rough_alignment(giPoint3coPageArr const& first, giPoint3coPageArr const& second,
                                                      giXform3& rough) {
  if (second.count() < first.count())
    return gfit::detail::refuse(gfReason::bad_companion_array, "the second array has fewer points than the first");
  gfPointsToPoints pairs;
  for (int i = 0; i < first.count(); ++i) pairs.add_pair(second[i], first[i]);
  return pairs.get_xform(rough);
}

void gfBestfitAlignmentWithScale::get_refined_xform(gfSurfaceBestfit& bf, double tol, int steps, giXform3& xform,
                                                    double& msd, double& scale_x, double& scale_y) {
  if (steps < 1) {
    xform = bf.get_transformation();
    return;
  }
  for (int k = 0;;) {
    giXform3 s(giXformIdentity{});
    int ok = bf.do_iteration(s);
    gfProjectedPoint3coDynArr const& cloud = bf.get_pointcloud();
    double sum = 0.0, ax = 0.0, bx = 0.0, ay = 0.0, by = 0.0;
    int valid = 0;
    for (int i = 0; i < cloud.count(); ++i) {
      gfProjectedPoint3 const& r = cloud[i];
      if (r.invalid()) continue;
      giPoint3 const& m = r.measured_point();
      giVector3 e = m - r.nominal_point();
      sum += e.squared_length();
      ax += e.x() * m.x();
      bx += m.x() * m.x();
      ay += e.y() * m.y();
      by += m.y() * m.y();
      ++valid;
    }
    msd = valid ? sum / valid : sum;
    scale_x = clamp_scale(std::fabs(bx) > tiny ? 1.0 + ax / bx : 1.0);
    scale_y = clamp_scale(std::fabs(by) > tiny ? 1.0 + ay / by : 1.0);
    if (ok == 0 || tol > get_maximum_movement(cloud, s)) break;
    if (++k >= steps) break;
  }
  xform = bf.get_transformation();
}

double gfBestfitAlignmentWithScale::get_square_deviation(gfFitPoint3PtrcoPageArr const& points, giXform3 const& xform,
                                                         gfProjectorForFitting3& projector) {
  double sum = 0.0;
  int valid = 0;
  for (int i = 0; i < points.count(); ++i) {
    auto const* probed = dynamic_cast<gfProbedPoint3 const*>(points[i].get());
    if (!probed) continue;
    gfProjectedPoint3 out;
    projector.rotate_and_project(xform, probed, out);
    if (out.invalid()) continue;
    double d = out.distance();
    sum += d * d;
    ++valid;
  }
  return valid ? sum / valid : 0.0;
}

void gfBestfitAlignmentWithScale::get_alignment(gfObjectForFitting** object, giPoint3coPageArr const& first,
                                                giPoint3coPageArr const& second, giPoint3coPageArr const& cloud,
                                                double tol, int steps, giXform3& rough, giXform3& result,
                                                double& scale_x, double& scale_y, int passes) {
  if (!object || !*object || passes < 0 || steps < 0 || !std::isfinite(tol)) {
    gfit::detail::refuse(gfReason::invalid_argument, "no nominal object, or a negative count of passes or steps");
    return;
  }
  if (rough.is_unset()) find_rough_alignment(first, second, rough);
  if (rough.is_unset()) {
    gfit::detail::refuse(gfReason::not_determined, "no rough alignment");
    return;
  }

  gfFitPoint3PtrcoPageArr points;
  build_points(cloud, rough, points);
  gfProjectorForFitting3coPrf projector = (*object)->create_projector();
  scale_x = scale_y = 1.0;
  giXform3 x = rough;

  for (int pass = 0; pass < passes; ++pass) {
    gfSurfaceBestfit bf;
    bf.set_projector(projector.get());
    bf.reserve_points(points.count());
    for (int i = 0; i < points.count(); ++i) bf.add_point(points[i]);
    giXform3 t = bf.get_transformation();
    double msd = 0.0, sx = 1.0, sy = 1.0;
    get_refined_xform(bf, tol, steps, t, msd, sx, sy);
    if (t.is_unset()) break;  // no step could be taken: nothing to refine or rescale
    x = t * x;

    gfObjectForFitting* scaled = (*object)->copy();
    scaled->transform(giXform3(giXformScale{}, sx, sy, 1.0));
    gfProjectorForFitting3coPrf scaled_projector = scaled->create_projector();
    double scaled_msd = get_square_deviation(points, t, *scaled_projector);
    if (msd <= scaled_msd) {
      scaled_projector = gfProjectorForFitting3coPrf();
      delete scaled;
      break;
    }
    projector = scaled_projector;  // releases the old object's projector before the object
    delete *object;
    *object = scaled;
    scale_x *= sx;
    scale_y *= sy;
    build_points(cloud, x, points);
  }
  result = x;
  gfit::detail::succeed();
}

void gfBestfitAlignmentWithScale::get_alignment(tskSurfPtr& surface, giPoint3coPageArr const& first,
                                                giPoint3coPageArr const& second, giPoint3coPageArr const& cloud,
                                                double tol, int steps, giXform3& rough, giXform3& result,
                                                double& scale_x, double& scale_y, int passes) {
  if (!surface) {
    gfit::detail::refuse(gfReason::invalid_argument, "no surface");
    return;
  }
  gfObjectForFitting* object = new gfSurfaceForFitting(surface);
  get_alignment(&object, first, second, cloud, tol, steps, rough, result, scale_x, scale_y, passes);
  surface = static_cast<gfSurfaceForFitting*>(object)->get_surface();
  delete object;
}
