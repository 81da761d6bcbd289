// The surface kernel over OpenCASCADE.
//
// A surface keeps the shape as it was made or read (the base), the affine map that has been
// applied to it since, and per face what projection and normals need: the face's surface in
// world coordinates, the parameter range searched on it, the face that trims it and the data
// of its outward normal. Analytic faces get closed-form normals; free-form faces get
// D1U x D1V.
//
// Non-uniform scales: OpenCASCADE can only map a shape by a general affine map through B-spline
// conversion, which makes projection 100 times slower. Planes and cylinders whose sections stay
// perpendicular to the axis are affine-mapped exactly by hand instead (a plane, and a linear
// extrusion of an ellipse), and trimmed by mapping the foot point back into the base face.
//
// The per-thread part (adaptors, extrema, classifiers) lives in the caller's tskSurfPointList.
#include "gfit/cad/occt.h"

#include <BRepBndLib.hxx>
#include <BRepBuilderAPI_Copy.hxx>
#include <BRepBuilderAPI_GTransform.hxx>
#include <BRepBuilderAPI_Transform.hxx>
#include <BRepTools.hxx>
#include <BRepTopAdaptor_FClass2d.hxx>
#include <BRep_Builder.hxx>
#include <BRep_Tool.hxx>
#include <Bnd_Box.hxx>
#include <ElSLib.hxx>
#include <Extrema_ExtPC.hxx>
#include <Extrema_ExtPS.hxx>
#include <GeomAdaptor_Curve.hxx>
#include <GeomAdaptor_Surface.hxx>
#include <Geom2d_Curve.hxx>
#include <Geom_Ellipse.hxx>
#include <Geom_Plane.hxx>
#include <Geom_SurfaceOfLinearExtrusion.hxx>
#include <Standard_Failure.hxx>
#include <TopExp.hxx>
#include <TopExp_Explorer.hxx>
#include <TopTools_IndexedMapOfShape.hxx>
#include <TopoDS.hxx>
#include <TopoDS_Face.hxx>
#include <TopoDS_Iterator.hxx>
#include <TopoDS_Shape.hxx>
#include <TopoDS_Wire.hxx>
#include <gp_GTrsf.hxx>
#include <gp_Trsf.hxx>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <vector>

namespace gfit::detail {

namespace {

std::uint64_t next_serial() {
  static std::atomic<std::uint64_t> serial{0};
  return ++serial;
}

gp_Pnt to_occ(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
gp_XYZ to_xyz(giVector3 const& v) { return {v.x(), v.y(), v.z()}; }
giPoint3 to_gi(gp_Pnt const& p) { return {p.X(), p.Y(), p.Z()}; }
giVector3 to_gi(gp_XYZ const& v) { return {v.X(), v.Y(), v.Z()}; }
giVector3 to_gi(gp_Dir const& v) { return {v.X(), v.Y(), v.Z()}; }

// The linear part of a transform applied to a vector, and its inverse transpose (which maps
// normals: the side a point lies on is kept).
giVector3 linear(giXform3 const& x, giVector3 const& v) { return x.transform(v); }
giVector3 cotransform(giXform3 const& inverse, giVector3 const& n) {
  return {inverse(0, 0) * n.x() + inverse(1, 0) * n.y() + inverse(2, 0) * n.z(),
          inverse(0, 1) * n.x() + inverse(1, 1) * n.y() + inverse(2, 1) * n.z(),
          inverse(0, 2) * n.x() + inverse(1, 2) * n.y() + inverse(2, 2) * n.z()};
}

// A rotation times a uniform scale (possibly with a mirror): OpenCASCADE maps such shapes
// exactly and keeps every face's kind.
bool is_similarity(giXform3 const& x) {
  double g[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) g[i][j] = x(0, i) * x(0, j) + x(1, i) * x(1, j) + x(2, i) * x(2, j);
  double scale = (g[0][0] + g[1][1] + g[2][2]) / 3.0;
  double tol = 1e-12 * scale;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      if (std::fabs(g[i][j] - (i == j ? scale : 0.0)) > tol) return false;
  return scale > 0.0;
}

gp_Trsf to_trsf(giXform3 const& x) {
  gp_Trsf t;
  t.SetValues(x(0, 0), x(0, 1), x(0, 2), x(0, 3), x(1, 0), x(1, 1), x(1, 2), x(1, 3), x(2, 0), x(2, 1), x(2, 2),
              x(2, 3));
  return t;
}

gp_GTrsf to_gtrsf(giXform3 const& x) {
  gp_GTrsf t;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) t.SetValue(i + 1, j + 1, x(i, j));
  t.SetTranslationPart(gp_XYZ(x(0, 3), x(1, 3), x(2, 3)));
  t.SetForm();
  return t;
}

}  // namespace

enum class FaceKind { plane, cylinder, cone, sphere, torus, elliptic_cylinder, general };

void store_box(double (&box)[6], Bnd_Box const& b) {
  if (b.IsVoid()) {
    box[0] = box[1] = box[2] = DBL_MAX;
    box[3] = box[4] = box[5] = -DBL_MAX;
    return;
  }
  b.Get(box[0], box[1], box[2], box[3], box[4], box[5]);
}

double box_distance(double const (&box)[6], gp_Pnt const& p) {
  double c[3] = {p.X(), p.Y(), p.Z()};
  double s = 0.0;
  for (int i = 0; i < 3; ++i) {
    double d = c[i] < box[i] ? box[i] - c[i] : (c[i] > box[i + 3] ? c[i] - box[i + 3] : 0.0);
    s += d * d;
  }
  return std::sqrt(s);
}

// An edge of a face's boundary: its curve in world coordinates and its curve on the face.
struct Edge {
  Handle(Geom_Curve) curve;
  double first = 0.0, last = 0.0;
  Handle(Geom2d_Curve) pcurve;  // on the face's `surface`; null on hand-mapped faces
  double box[6];
};

// A wire of a face with holes, classified on its own so that points outside its parameter box
// need no test against it: faces with hundreds of holes would otherwise test every hole.
struct Wire {
  TopoDS_Face face;  // the face's surface bounded by this wire alone
  double box[4];     // umin, umax, vmin, vmax, widened by the tolerance
  bool hole;
};

struct Face {
  FaceKind kind = FaceKind::general;
  Handle(Geom_Surface) surface;  // world coordinates: foot points are sought on it
  double umin = 0, umax = 0, vmin = 0, vmax = 0;  // the parameter range searched on `surface`
  double box[6] = {0, 0, 0, 0, 0, 0};              // world bounding box (min xyz, max xyz)

  // Trimming: the face whose parameter domain bounds this one. Foot points reach it directly
  // (their parameters on `surface`), or, for hand-mapped faces, mapped back by `inverse` and
  // located on the base plane or cylinder `base_frame` (radius `base_radius`).
  TopoDS_Face domain;
  std::vector<Wire> wires;  // filled for faces with holes on non-periodic surfaces
  double tolerance = 1e-7;
  bool via_base = false;
  giXform3 inverse;
  gp_Ax3 base_frame;
  double base_radius = 0.0;

  // Normals: outward = sign * the geometric normal (away from the axis or centre); planes keep
  // their outward normal; free-form faces use sign * (D1U x D1V).
  double sign = 1.0;
  gp_Ax3 frame;
  double r1 = 0.0, r2 = 0.0, semi_angle = 0.0;
  giUnitVec3 plane_normal;

  std::vector<Edge> edges;  // the boundary, for points beyond it
};

struct SurfData {
  TopoDS_Shape base;
  giXform3 xform{giXformIdentity{}};  // world = xform(base)
  TopoDS_Shape world;
  std::vector<Face> faces;
  giBox3 box;
};

// What one thread needs to project onto one face: built on first use, never shared.
struct EdgeWork {
  Handle(GeomAdaptor_Curve) adaptor;
  Extrema_ExtPC extrema;
};

struct FaceWork {
  Handle(GeomAdaptor_Surface) adaptor;
  Extrema_ExtPS extrema;
  std::unique_ptr<BRepTopAdaptor_FClass2d> classifier;
  std::vector<std::unique_ptr<BRepTopAdaptor_FClass2d>> wire_classifiers;  // built on first use
  std::vector<std::unique_ptr<EdgeWork>> edges;  // built on first use
};

struct Candidate {
  tskSurfPoint foot;
  int order;  // the kernel's order within the face
};

struct SurfWorkspace {
  std::uint64_t serial = 0;  // the surface build the evaluators belong to
  std::vector<std::unique_ptr<FaceWork>> faces;
  std::vector<std::pair<double, int>> visit;  // box distance, face
  std::vector<Candidate> found;
};

namespace {

void set_box(Face& f, Bnd_Box const& b) { store_box(f.box, b); }

double orientation(TopoDS_Face const& face) { return face.Orientation() == TopAbs_REVERSED ? -1.0 : 1.0; }
double handedness(gp_Ax3 const& frame) { return frame.Direct() ? 1.0 : -1.0; }

// The edges of `face` (of the world shape); with `on_face`, their curves on it.
void collect_edges(Face& f, TopoDS_Face const& face, bool on_face) {
  for (TopExp_Explorer e(face, TopAbs_EDGE); e.More(); e.Next()) {
    TopoDS_Edge const& edge = TopoDS::Edge(e.Current());
    if (BRep_Tool::Degenerated(edge)) continue;  // a pole: no boundary in space
    Edge out;
    out.curve = BRep_Tool::Curve(edge, out.first, out.last);
    if (out.curve.IsNull()) continue;
    if (on_face) {
      double first, last;
      out.pcurve = BRep_Tool::CurveOnSurface(edge, face, first, last);
    }
    Bnd_Box box;
    BRepBndLib::Add(edge, box, Standard_False);
    box.Enlarge(1e-7);
    store_box(out.box, box);
    f.edges.push_back(out);
  }
}

// A face of the shape as it is, analytic faces recognised.
Face direct_face(TopoDS_Face const& face) {
  Face f;
  f.surface = BRep_Tool::Surface(face);  // with the face's location applied
  f.domain = face;
  f.tolerance = BRep_Tool::Tolerance(face);
  BRepTools::UVBounds(face, f.umin, f.umax, f.vmin, f.vmax);
  Bnd_Box box;
  BRepBndLib::Add(face, box, Standard_False);
  box.Enlarge(1e-7);
  set_box(f, box);

  double orient = orientation(face);
  GeomAdaptor_Surface a(f.surface);
  switch (a.GetType()) {
    case GeomAbs_Plane: {
      gp_Ax3 const frame = a.Plane().Position();
      f.kind = FaceKind::plane;
      f.plane_normal = (orient * to_gi(frame.XDirection().Crossed(frame.YDirection()))).unit();
      break;
    }
    case GeomAbs_Cylinder:
      f.kind = FaceKind::cylinder;
      f.frame = a.Cylinder().Position();
      f.r1 = a.Cylinder().Radius();
      break;
    case GeomAbs_Cone:
      f.kind = FaceKind::cone;
      f.frame = a.Cone().Position();
      f.r1 = a.Cone().RefRadius();
      f.semi_angle = a.Cone().SemiAngle();
      break;
    case GeomAbs_Sphere:
      f.kind = FaceKind::sphere;
      f.frame = a.Sphere().Position();
      f.r1 = a.Sphere().Radius();
      break;
    case GeomAbs_Torus:
      f.kind = FaceKind::torus;
      f.frame = a.Torus().Position();
      f.r1 = a.Torus().MajorRadius();
      f.r2 = a.Torus().MinorRadius();
      break;
    default:
      f.kind = FaceKind::general;
      break;
  }
  // D1U x D1V of an analytic surface points away from its axis when its frame is right-handed.
  f.sign = f.kind == FaceKind::general || f.kind == FaceKind::plane ? orient : orient * handedness(f.frame);
  collect_edges(f, face, true);
  return f;
}

// The world box of a base face under an affine map: the box of the images of its corners.
void mapped_box(Face& f, TopoDS_Face const& base_face, giXform3 const& x) {
  Bnd_Box b;
  BRepBndLib::Add(base_face, b, Standard_False);
  double m[6];
  b.Get(m[0], m[1], m[2], m[3], m[4], m[5]);
  Bnd_Box out;
  for (int k = 0; k < 8; ++k)
    out.Add(to_occ(x.transform(giPoint3(m[(k & 1) ? 3 : 0], m[(k & 2) ? 4 : 1], m[(k & 4) ? 5 : 2]))));
  out.Enlarge(1e-7 + 1e-12 * std::sqrt(out.SquareExtent()));
  set_box(f, out);
}

// A base plane or cylinder under a general affine map x, made by hand; false when the face is
// not of a kind that stays simple (it is then taken from OpenCASCADE's B-spline conversion).
bool mapped_face(TopoDS_Face const& base_face, giXform3 const& x, giXform3 const& inverse, Face& f) {
  Handle(Geom_Surface) s = BRep_Tool::Surface(base_face);
  GeomAdaptor_Surface a(s);
  double orient = orientation(base_face);
  double umin, umax, vmin, vmax;
  BRepTools::UVBounds(base_face, umin, umax, vmin, vmax);

  if (a.GetType() == GeomAbs_Plane) {
    gp_Ax3 const frame = a.Plane().Position();
    giVector3 outward = orient * to_gi(frame.XDirection().Crossed(frame.YDirection()));
    giUnitVec3 n = cotransform(inverse, outward).unit();
    giPoint3 origin = x.transform(to_gi(frame.Location()));
    f.kind = FaceKind::plane;
    f.plane_normal = n;
    f.surface = new Geom_Plane(to_occ(origin), gp_Dir(n.x(), n.y(), n.z()));
    f.base_frame = frame;
    mapped_box(f, base_face, x);
    // Search the plane over the extent of the face's box.
    gp_Ax3 const& pf = Handle(Geom_Plane)::DownCast(f.surface)->Position();
    f.umin = f.vmin = DBL_MAX;
    f.umax = f.vmax = -DBL_MAX;
    for (int k = 0; k < 8; ++k) {
      gp_Pnt c(f.box[(k & 1) ? 3 : 0], f.box[(k & 2) ? 4 : 1], f.box[(k & 4) ? 5 : 2]);
      double u, v;
      ElSLib::PlaneParameters(pf, c, u, v);
      f.umin = std::min(f.umin, u);
      f.umax = std::max(f.umax, u);
      f.vmin = std::min(f.vmin, v);
      f.vmax = std::max(f.vmax, v);
    }
  } else if (a.GetType() == GeomAbs_Cylinder) {
    gp_Ax3 const frame = a.Cylinder().Position();
    double r = a.Cylinder().Radius();
    // The base section (v = 0) maps to the ellipse c + U cos t + V sin t; the generators to W.
    giVector3 U = linear(x, r * to_gi(frame.XDirection()));
    giVector3 V = linear(x, r * to_gi(frame.YDirection()));
    giVector3 W = linear(x, to_gi(frame.Direction()));
    giUnitVec3 plane = U.cross(V).unit();
    giUnitVec3 w = W.unit();
    if (plane.invalid() || w.invalid() || plane.cross(w).length() > 1e-12) return false;
    // Principal axes: the extremes of |U cos t + V sin t| are at tan 2t = 2 U.V / (U.U - V.V).
    double t0 = 0.5 * std::atan2(2.0 * U.dot(V), U.squared_length() - V.squared_length());
    giVector3 major = U * std::cos(t0) + V * std::sin(t0);
    giVector3 minor = V * std::cos(t0) - U * std::sin(t0);
    if (major.length() < minor.length()) std::swap(major, minor);
    giPoint3 centre = x.transform(to_gi(frame.Location()));
    gp_Ax2 axes(to_occ(centre), gp_Dir(plane.x(), plane.y(), plane.z()), gp_Dir(to_xyz(major)));
    gp_Elips ellipse(axes, major.length(), minor.length());
    f.kind = FaceKind::elliptic_cylinder;
    f.surface = new Geom_SurfaceOfLinearExtrusion(new Geom_Ellipse(ellipse), gp_Dir(w.x(), w.y(), w.z()));
    f.frame = gp_Ax3(axes);
    f.r1 = ellipse.MajorRadius();
    f.r2 = ellipse.MinorRadius();
    f.base_frame = frame;
    f.base_radius = r;
    f.sign = orient * handedness(frame);
    // A point at height v of the base maps to height v |W| along w.
    double k = W.length();
    double margin = 1e-9 * (1.0 + std::fabs(vmin) + std::fabs(vmax));
    f.umin = 0.0;
    f.umax = 2.0 * giPi;
    f.vmin = k * vmin - margin;
    f.vmax = k * vmax + margin;
    mapped_box(f, base_face, x);
  } else {
    return false;
  }
  f.domain = base_face;
  f.tolerance = BRep_Tool::Tolerance(base_face);
  f.via_base = true;
  f.inverse = inverse;
  if (f.kind == FaceKind::plane) f.sign = 1.0;
  return true;
}

void split_wires(Face& f) {
  Handle(Geom_Surface) s = BRep_Tool::Surface(f.domain);
  if (s->IsUPeriodic() || s->IsVPeriodic()) return;
  TopoDS_Face forward = TopoDS::Face(f.domain.Oriented(TopAbs_FORWARD));
  TopoDS_Wire outer = BRepTools::OuterWire(forward);
  std::vector<Wire> wires;
  BRep_Builder builder;
  for (TopoDS_Iterator it(forward); it.More(); it.Next()) {
    if (it.Value().ShapeType() != TopAbs_WIRE) continue;
    TopoDS_Wire const& wire = TopoDS::Wire(it.Value());
    Wire w;
    w.face = TopoDS::Face(forward.EmptyCopied());
    builder.Add(w.face, wire);
    BRepTools::UVBounds(forward, wire, w.box[0], w.box[1], w.box[2], w.box[3]);
    double margin = 1e-6 + f.tolerance;
    w.box[0] -= margin;
    w.box[1] += margin;
    w.box[2] -= margin;
    w.box[3] += margin;
    w.hole = !wire.IsSame(outer);
    wires.push_back(w);
  }
  if (wires.size() > 1) f.wires = std::move(wires);
}

// Builds the world shape and the faces of `d` from its base and transform. Throws
// Standard_Failure when OpenCASCADE cannot.
void build(SurfData& d) {
  TopTools_IndexedMapOfShape base_faces;
  TopExp::MapShapes(d.base, TopAbs_FACE, base_faces);
  d.faces.clear();
  d.faces.reserve(base_faces.Extent());
  d.box = giBox3();

  if (d.xform.is_identity()) {
    d.world = d.base;
    for (int i = 1; i <= base_faces.Extent(); ++i) d.faces.push_back(direct_face(TopoDS::Face(base_faces(i))));
  } else if (is_similarity(d.xform)) {
    BRepBuilderAPI_Transform mapped(d.base, to_trsf(d.xform), Standard_True);
    d.world = mapped.Shape();
    for (int i = 1; i <= base_faces.Extent(); ++i)
      d.faces.push_back(direct_face(TopoDS::Face(mapped.ModifiedShape(base_faces(i)))));
  } else {
    BRepBuilderAPI_GTransform mapped(d.base, to_gtrsf(d.xform), Standard_True);
    d.world = mapped.Shape();
    giXform3 inverse(giXformInverse{}, d.xform);
    for (int i = 1; i <= base_faces.Extent(); ++i) {
      TopoDS_Face base_face = TopoDS::Face(base_faces(i));
      Face f;
      TopoDS_Face world_face = TopoDS::Face(mapped.ModifiedShape(base_face));
      if (mapped_face(base_face, d.xform, inverse, f))
        collect_edges(f, world_face, false);
      else
        f = direct_face(world_face);
      d.faces.push_back(f);
    }
  }
  for (Face& f : d.faces) {
    split_wires(f);
    if (f.box[0] > f.box[3]) continue;
    d.box.merge(giPoint3(f.box[0], f.box[1], f.box[2]));
    d.box.merge(giPoint3(f.box[3], f.box[4], f.box[5]));
  }
}

FaceWork& face_work(SurfWorkspace& ws, std::vector<Face> const& faces, int i) {
  std::unique_ptr<FaceWork>& slot = ws.faces[i];
  if (!slot) {
    Face const& f = faces[i];
    auto w = std::make_unique<FaceWork>();
    w->adaptor = new GeomAdaptor_Surface(f.surface, f.umin, f.umax, f.vmin, f.vmax);
    double tol = 1e-9;
    w->extrema.Initialize(*w->adaptor, f.umin, f.umax, f.vmin, f.vmax, tol, tol);
    // On free-form faces only the nearest foot point is sought: a UB-tree over the sampling
    // grid gives the nearest sample without visiting every one, and Newton steps refine it.
    // The full search for every extremum costs ten times more and still misses saddles.
    if (f.kind == FaceKind::general) {
      w->extrema.SetFlag(Extrema_ExtFlag_MIN);
      w->extrema.SetAlgo(Extrema_ExtAlgo_Tree);
    }
    if (f.wires.empty()) w->classifier = std::make_unique<BRepTopAdaptor_FClass2d>(f.domain, f.tolerance);
    w->wire_classifiers.resize(f.wires.size());
    w->edges.resize(f.edges.size());
    slot = std::move(w);
  }
  return *slot;
}

// Is the foot point inside the trimmed face?
bool inside(Face const& f, FaceWork& w, gp_Pnt const& foot, double u, double v) {
  if (f.via_base) {
    gp_Pnt base = to_occ(f.inverse.transform(to_gi(foot)));
    if (f.kind == FaceKind::plane)
      ElSLib::PlaneParameters(f.base_frame, base, u, v);
    else
      ElSLib::CylinderParameters(f.base_frame, f.base_radius, base, u, v);
  }
  gp_Pnt2d uv(u, v);
  if (f.wires.empty()) {
    TopAbs_State state = w.classifier->Perform(uv);
    return state == TopAbs_IN || state == TopAbs_ON;
  }
  // Inside the outer wire and outside every hole; a wire whose box misses the point is decided
  // by its kind alone.
  for (size_t i = 0; i < f.wires.size(); ++i) {
    Wire const& wire = f.wires[i];
    if (u < wire.box[0] || u > wire.box[1] || v < wire.box[2] || v > wire.box[3]) {
      if (!wire.hole) return false;
      continue;
    }
    std::unique_ptr<BRepTopAdaptor_FClass2d>& c = w.wire_classifiers[i];
    if (!c) c = std::make_unique<BRepTopAdaptor_FClass2d>(wire.face, f.tolerance);
    if (c->Perform(uv) == TopAbs_OUT) return false;
  }
  return true;
}

EdgeWork& edge_work(FaceWork& w, Face const& f, size_t i) {
  std::unique_ptr<EdgeWork>& slot = w.edges[i];
  if (!slot) {
    Edge const& e = f.edges[i];
    auto work = std::make_unique<EdgeWork>();
    work->adaptor = new GeomAdaptor_Curve(e.curve, e.first, e.last);
    work->extrema.Initialize(*work->adaptor, e.first, e.last);
    slot = std::move(work);
  }
  return *slot;
}

// When the face's nearest point to p is on its boundary (p lies beyond it, or the face curves
// away), that point is a foot point too: the projector then sees p at an oblique angle and can
// tell. Edges whose box is no nearer than the best point so far are skipped.
void nearest_on_boundary(Face const& f, FaceWork& w, int face, gp_Pnt const& p, std::vector<Candidate>& found) {
  // A boundary point no nearer than an interior foot point (by more than rounding) adds nothing.
  double best = DBL_MAX;
  for (size_t k = 0; k < found.size(); ++k)
    if (found[k].foot.face == face) best = std::min(best, found[k].foot.distance - 1e-9);
  int best_edge = -1;
  double best_parameter = 0.0;
  gp_Pnt best_point;
  for (size_t i = 0; i < f.edges.size(); ++i) {
    if (box_distance(f.edges[i].box, p) >= best) continue;
    EdgeWork& e = edge_work(w, f, i);
    e.extrema.Perform(p);
    if (!e.extrema.IsDone()) continue;
    auto consider = [&](double square, double parameter, gp_Pnt const& point) {
      double d = std::sqrt(square);
      if (d < best) {
        best = d;
        best_edge = static_cast<int>(i);
        best_parameter = parameter;
        best_point = point;
      }
    };
    for (int k = 1; k <= e.extrema.NbExt(); ++k)
      if (e.extrema.IsMin(k))
        consider(e.extrema.SquareDistance(k), e.extrema.Point(k).Parameter(), e.extrema.Point(k).Value());
    double d1, d2;
    gp_Pnt p1, p2;
    e.extrema.TrimmedSquareDistances(d1, d2, p1, p2);
    consider(d1, f.edges[i].first, p1);
    consider(d2, f.edges[i].last, p2);
  }
  if (best_edge < 0) return;
  Candidate c;
  c.foot.point = to_gi(best_point);
  c.foot.distance = best;
  c.foot.face = face;
  Edge const& e = f.edges[best_edge];
  if (!e.pcurve.IsNull()) {
    gp_Pnt2d uv = e.pcurve->Value(best_parameter);
    c.foot.u = uv.X();
    c.foot.v = uv.Y();
  }
  c.order = INT_MAX;  // after the face's interior foot points
  found.push_back(c);
}

void project_on_face(Face const& f, FaceWork& w, int face, gp_Pnt const& p, std::vector<Candidate>& found) {
  w.extrema.Perform(p);
  if (!w.extrema.IsDone()) return;
  for (int k = 1; k <= w.extrema.NbExt(); ++k) {
    Extrema_POnSurf const& e = w.extrema.Point(k);
    double u, v;
    e.Parameter(u, v);
    gp_Pnt foot = e.Value();
    if (!inside(f, w, foot, u, v)) continue;
    Candidate c;
    c.foot.point = to_gi(foot);
    c.foot.distance = p.Distance(foot);
    c.foot.face = face;
    c.foot.u = u;
    c.foot.v = v;
    c.order = k;
    found.push_back(c);
  }
  nearest_on_boundary(f, w, face, p, found);
}

}  // namespace

}  // namespace gfit::detail

using gfit::detail::Candidate;
using gfit::detail::Face;
using gfit::detail::FaceKind;
using gfit::detail::SurfData;
using gfit::detail::SurfWorkspace;

// ---------------------------------------------------------------------------------------
tskSurfPointList::tskSurfPointList() = default;
tskSurfPointList::tskSurfPointList(tskSurfPointList const& other) : points_(other.points_) {}
tskSurfPointList& tskSurfPointList::operator=(tskSurfPointList const& other) {
  points_ = other.points_;
  return *this;
}
tskSurfPointList::~tskSurfPointList() = default;

// ---------------------------------------------------------------------------------------
tskSurf::tskSurf() : data_(std::make_unique<SurfData>()), serial_(gfit::detail::next_serial()) {}
tskSurf::~tskSurf() = default;

namespace gfit::detail {
// The shape conversions of gfit/cad/occt.h reach the surface's private state through here, so
// that surface.h itself names no OpenCASCADE type.
struct SurfAccess {
  static tskSurfPtr from_shape(TopoDS_Shape const& shape) {
    tskSurfPtr s(new tskSurf);
    try {
      if (!shape.IsNull()) s->data_->base = BRepBuilderAPI_Copy(shape, Standard_True).Shape();
      build(*s->data_);
    } catch (Standard_Failure const&) {
      return nullptr;
    }
    return s;
  }
  static TopoDS_Shape shape(tskSurf const& surface) { return surface.data_->world; }
};
}  // namespace gfit::detail

tskSurfPtr tskSurfFromShape(TopoDS_Shape const& shape) { return gfit::detail::SurfAccess::from_shape(shape); }

TopoDS_Shape tskSurfShape(tskSurf const& surface) { return gfit::detail::SurfAccess::shape(surface); }

tskSurfPtr tskSurf::copy() const {
  tskSurfPtr s(new tskSurf);
  try {
    if (!data_->base.IsNull()) s->data_->base = BRepBuilderAPI_Copy(data_->base, Standard_True).Shape();
    s->data_->xform = data_->xform;
    gfit::detail::build(*s->data_);
  } catch (Standard_Failure const&) {
    return nullptr;
  }
  return s;
}

bool tskSurf::transform(tskSurfPtr& surface, giXform3 const& xform) {
  if (!surface || xform.is_unset()) return false;
  if (xform.is_identity()) return true;
  auto d = std::make_unique<SurfData>();
  d->base = surface->data_->base;
  d->xform = xform * surface->data_->xform;
  try {
    gfit::detail::build(*d);
  } catch (Standard_Failure const&) {
    return false;
  }
  surface->data_ = std::move(d);
  surface->serial_ = gfit::detail::next_serial();
  return true;
}

int tskSurf::n_faces() const { return static_cast<int>(data_->faces.size()); }
giBox3 tskSurf::box() const { return data_->box; }

void tskSurf::project(giPoint3 const& p, tskSurfPointList& feet, Cutoff const& cutoff) const {
  feet.points_.clear(0);
  if (!p.finite() || p.invalid()) return;
  std::vector<Face> const& faces = data_->faces;
  if (!feet.workspace_) feet.workspace_ = std::make_unique<SurfWorkspace>();
  SurfWorkspace& ws = *feet.workspace_;
  if (ws.serial != serial_) {
    ws.faces.clear();
    ws.faces.resize(faces.size());
    ws.serial = serial_;
  }

  gp_Pnt q = gfit::detail::to_occ(p);
  ws.visit.clear();
  for (int i = 0; i < static_cast<int>(faces.size()); ++i) ws.visit.emplace_back(gfit::detail::box_distance(faces[i].box, q), i);
  // Nearest box first, taken from a heap: with a cutoff only a few faces are ever taken.
  auto farther = [](std::pair<double, int> const& a, std::pair<double, int> const& b) { return a > b; };
  std::make_heap(ws.visit.begin(), ws.visit.end(), farther);

  ws.found.clear();
  double limit = DBL_MAX;
  while (!ws.visit.empty()) {
    std::pop_heap(ws.visit.begin(), ws.visit.end(), farther);
    auto const [box_dist, i] = ws.visit.back();
    ws.visit.pop_back();
    if (box_dist > limit) break;
    size_t first = ws.found.size();
    try {
      gfit::detail::project_on_face(faces[i], gfit::detail::face_work(ws, faces, i), i, q, ws.found);
    } catch (Standard_Failure const&) {
      ws.found.resize(first);  // a face OpenCASCADE cannot search contributes nothing
      continue;
    }
    if (cutoff)
      for (size_t k = first; k < ws.found.size(); ++k) limit = std::min(limit, cutoff(ws.found[k].foot));
  }

  std::sort(ws.found.begin(), ws.found.end(), [](Candidate const& a, Candidate const& b) {
    if (a.foot.distance != b.foot.distance) return a.foot.distance < b.foot.distance;
    if (a.foot.face != b.foot.face) return a.foot.face < b.foot.face;
    return a.order < b.order;
  });
  constexpr double duplicate = 1e-7;
  for (Candidate const& c : ws.found) {
    bool seen = false;
    for (int k = 0; k < feet.points_.count() && !seen; ++k)
      seen = feet.points_[k].point.squared_distance(c.foot.point) <= duplicate * duplicate;
    if (!seen) feet.points_.append(c.foot);
  }
}

bool tskSurf::normal(tskSurfPoint const& foot, double distance_tolerance, double angle_tolerance,
                     giUnitVec3& n) const {
  if (foot.face < 0 || foot.face >= n_faces()) return false;
  Face const& f = data_->faces[foot.face];
  giVector3 g;
  auto axis_frame = [&](giVector3& d, double& z, giVector3& radial) {
    d = foot.point - gfit::detail::to_gi(f.frame.Location());
    giVector3 axis = gfit::detail::to_gi(f.frame.Direction());
    z = d.dot(axis);
    radial = d - axis * z;
  };
  giVector3 d, radial;
  double z = 0.0;
  switch (f.kind) {
    case FaceKind::plane:
      n = f.plane_normal;
      return !n.invalid();
    case FaceKind::cylinder:
      axis_frame(d, z, radial);
      if (radial.length() <= distance_tolerance) return false;
      g = radial;
      break;
    case FaceKind::sphere:
      axis_frame(d, z, radial);
      if (d.length() <= distance_tolerance) return false;
      g = d;
      break;
    case FaceKind::cone: {
      // Radius at height z is R + z tan(a); the surface normal leans against the axis by a.
      axis_frame(d, z, radial);
      double rho = f.r1 + z * std::tan(f.semi_angle);
      if (std::fabs(rho) <= distance_tolerance || radial.length() <= distance_tolerance) return false;
      giVector3 axis = gfit::detail::to_gi(f.frame.Direction());
      g = giVector3(radial.unit()) * std::cos(f.semi_angle) - axis * (rho > 0 ? std::sin(f.semi_angle)
                                                                                : -std::sin(f.semi_angle));
      break;
    }
    case FaceKind::torus: {
      axis_frame(d, z, radial);
      if (radial.length() <= distance_tolerance) return false;
      giPoint3 ring = gfit::detail::to_gi(f.frame.Location()) + radial.unit() * f.r1;
      g = foot.point - ring;
      if (g.length() <= distance_tolerance) return false;
      break;
    }
    case FaceKind::elliptic_cylinder: {
      // The gradient of (x/a)^2 + (y/b)^2 in the ellipse's frame.
      d = foot.point - gfit::detail::to_gi(f.frame.Location());
      double x = d.dot(gfit::detail::to_gi(f.frame.XDirection()));
      double y = d.dot(gfit::detail::to_gi(f.frame.YDirection()));
      g = gfit::detail::to_gi(f.frame.XDirection()) * (x / (f.r1 * f.r1)) +
          gfit::detail::to_gi(f.frame.YDirection()) * (y / (f.r2 * f.r2));
      if (std::sqrt(x * x + y * y) <= distance_tolerance) return false;
      break;
    }
    case FaceKind::general: {
      gp_Pnt p;
      gp_Vec du, dv;
      try {
        f.surface->D1(foot.u, foot.v, p, du, dv);
      } catch (Standard_Failure const&) {
        return false;
      }
      double lu = du.Magnitude(), lv = dv.Magnitude();
      if (lu <= distance_tolerance || lv <= distance_tolerance) return false;
      gp_Vec c = du.Crossed(dv);
      if (c.Magnitude() <= std::sin(angle_tolerance) * lu * lv) return false;
      g = gfit::detail::to_gi(c.XYZ());
      break;
    }
  }
  n = (f.sign * g).unit();
  return !n.invalid();
}
