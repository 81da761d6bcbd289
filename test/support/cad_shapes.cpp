#include "test/support/cad_shapes.h"

#include "gfit/cad/occt.h"
#include "tools/demo_part.h"

#include <BRepAlgoAPI_Fuse.hxx>
#include <BRepBuilderAPI_MakeEdge.hxx>
#include <BRepBuilderAPI_MakeFace.hxx>
#include <BRepBuilderAPI_MakeVertex.hxx>
#include <BRepBuilderAPI_MakeWire.hxx>
#include <BRepBuilderAPI_NurbsConvert.hxx>
#include <BRepFilletAPI_MakeFillet.hxx>
#include <BRepPrimAPI_MakeBox.hxx>
#include <BRepPrimAPI_MakeCylinder.hxx>
#include <BRepPrimAPI_MakePrism.hxx>
#include <BRep_Builder.hxx>
#include <BRep_Tool.hxx>
#include <Geom_Curve.hxx>
#include <GC_MakeCircle.hxx>
#include <GeomAPI_PointsToBSplineSurface.hxx>
#include <IGESControl_Writer.hxx>
#include <Interface_Static.hxx>
#include <Message.hxx>
#include <Message_Messenger.hxx>
#include <Message_PrinterOStream.hxx>
#include <STEPControl_Writer.hxx>
#include <Geom_BSplineSurface.hxx>
#include <TColgp_Array2OfPnt.hxx>
#include <TopExp_Explorer.hxx>
#include <TopoDS.hxx>
#include <TopoDS_Compound.hxx>
#include <gp_Ax3.hxx>
#include <gp_Circ.hxx>
#include <gp_Cone.hxx>
#include <gp_Cylinder.hxx>
#include <gp_Pln.hxx>
#include <gp_Sphere.hxx>
#include <gp_Torus.hxx>

#include <cmath>

namespace gfit::testing {

namespace {
gp_Pnt occ(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
gp_Dir occ(giUnitVec3 const& v) { return {v.x(), v.y(), v.z()}; }
gp_Ax3 frame(giPoint3 const& origin, giUnitVec3 const& axis) { return gp_Ax3(occ(origin), occ(axis)); }

// A planar face bounded by the rectangle [x0, x1] x [y0, y1] of z = 0, with circular holes.
TopoDS_Face holed_rectangle(double x0, double y0, double x1, double y1, std::vector<gp_Pnt> const& centres,
                            double radius) {
  BRepBuilderAPI_MakeWire outer;
  gp_Pnt c[4] = {{x0, y0, 0}, {x1, y0, 0}, {x1, y1, 0}, {x0, y1, 0}};
  for (int i = 0; i < 4; ++i) outer.Add(BRepBuilderAPI_MakeEdge(c[i], c[(i + 1) % 4]).Edge());
  BRepBuilderAPI_MakeFace face(outer.Wire(), Standard_True);
  for (gp_Pnt const& centre : centres) {
    gp_Circ circle(gp_Ax2(centre, gp::DZ()), radius);
    TopoDS_Wire hole = BRepBuilderAPI_MakeWire(BRepBuilderAPI_MakeEdge(circle).Edge()).Wire();
    face.Add(TopoDS::Wire(hole.Reversed()));  // inner wires run clockwise
  }
  return face.Face();
}
}  // namespace

tskSurfPtr plane_face(giPoint3 const& origin, giUnitVec3 const& normal, double half_size) {
  return tskSurfFromShape(
      BRepBuilderAPI_MakeFace(gp_Pln(frame(origin, normal)), -half_size, half_size, -half_size, half_size).Face());
}

tskSurfPtr cylinder_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double height) {
  return tskSurfFromShape(
      BRepBuilderAPI_MakeFace(gp_Cylinder(frame(origin, axis), radius), 0, 2 * giPi, 0, height).Face());
}

tskSurfPtr half_cylinder_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double height) {
  return tskSurfFromShape(
      BRepBuilderAPI_MakeFace(gp_Cylinder(frame(origin, axis), radius), -giPi / 2, giPi / 2, 0, height).Face());
}

tskSurfPtr sphere_face(giPoint3 const& centre, double radius) {
  return tskSurfFromShape(BRepBuilderAPI_MakeFace(gp_Sphere(frame(centre, giUnitVec3(0, 0, 1)), radius)).Face());
}

tskSurfPtr cone_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double half_angle, double height) {
  double slant = height / std::cos(half_angle);
  return tskSurfFromShape(
      BRepBuilderAPI_MakeFace(gp_Cone(frame(origin, axis), half_angle, radius), 0, 2 * giPi, 0, slant).Face());
}

tskSurfPtr torus_face(giPoint3 const& centre, giUnitVec3 const& axis, double major, double minor) {
  return tskSurfFromShape(BRepBuilderAPI_MakeFace(gp_Torus(frame(centre, axis), major, minor)).Face());
}

double bspline_height(double x, double y) { return 5.0 * std::sin(x / 15.0) * std::cos(y / 20.0); }

tskSurfPtr bspline_face() {
  int const n = 21;
  TColgp_Array2OfPnt grid(1, n, 1, n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) {
      double x = 5.0 * (i - 1), y = 5.0 * (j - 1);
      grid.SetValue(i, j, gp_Pnt(x, y, bspline_height(x, y)));
    }
  Handle(Geom_BSplineSurface) s = GeomAPI_PointsToBSplineSurface(grid, 3, 3, GeomAbs_C2, 1e-9).Surface();
  return tskSurfFromShape(BRepBuilderAPI_MakeFace(s, 1e-7).Face());
}

tskSurfPtr box(giPoint3 const& corner, double dx, double dy, double dz) {
  return tskSurfFromShape(BRepPrimAPI_MakeBox(occ(corner), dx, dy, dz).Shape());
}

tskSurfPtr flanged_cylinder() {
  TopoDS_Shape shaft = BRepPrimAPI_MakeCylinder(gp_Ax2(gp_Pnt(0, 0, 0), gp::DZ()), 10.0, 40.0).Shape();
  TopoDS_Shape flange = BRepPrimAPI_MakeCylinder(gp_Ax2(gp_Pnt(0, 0, 0), gp::DZ()), 25.0, 5.0).Shape();
  return tskSurfFromShape(BRepAlgoAPI_Fuse(shaft, flange).Shape());
}

tskSurfPtr plate_with_hole() {
  TopoDS_Face base = holed_rectangle(0, 0, 100, 60, {gp_Pnt(30, 30, 0)}, 8.0);
  return tskSurfFromShape(BRepPrimAPI_MakePrism(base, gp_Vec(0, 0, 10)).Shape());
}

tskSurfPtr filleted_block() {
  TopoDS_Shape block = BRepPrimAPI_MakeBox(60, 40, 30).Shape();
  BRepFilletAPI_MakeFillet fillet(block);
  for (TopExp_Explorer e(block, TopAbs_EDGE); e.More(); e.Next()) fillet.Add(5.0, TopoDS::Edge(e.Current()));
  return tskSurfFromShape(fillet.Shape());
}

tskSurfPtr holed_plate(int n) {
  std::vector<gp_Pnt> centres;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) centres.emplace_back(10.0 * i + 5.0, 10.0 * j + 5.0, 0.0);
  TopoDS_Face base = holed_rectangle(0, 0, 10.0 * n, 10.0 * n, centres, 3.0);
  return tskSurfFromShape(BRepPrimAPI_MakePrism(base, gp_Vec(0, 0, 8)).Shape());
}

tskSurfPtr demo_bracket() { return gfit::demo::bracket(); }

tskSurfPtr compound(std::vector<tskSurfPtr> const& parts) {
  BRep_Builder builder;
  TopoDS_Compound all;
  builder.MakeCompound(all);
  for (tskSurfPtr const& p : parts) builder.Add(all, tskSurfShape(*p));
  return tskSurfFromShape(all);
}

tskSurfPtr as_bspline(tskSurfPtr const& surface) {
  return tskSurfFromShape(BRepBuilderAPI_NurbsConvert(tskSurfShape(*surface), Standard_True).Shape());
}

tskSurfPtr from_own_shape(tskSurfPtr const& surface) { return tskSurfFromShape(tskSurfShape(*surface)); }

tskSurfPtr no_faces() { return tskSurfFromShape(BRepBuilderAPI_MakeVertex(gp_Pnt(1, 2, 3)).Shape()); }

bool write_in_inches(tskSurfPtr const& surface, std::string const& path) {
  // OpenCASCADE's writers report their transfers on standard output, into the test's log.
  Message::DefaultMessenger()->RemovePrinters(STANDARD_TYPE(Message_PrinterOStream));
  TopoDS_Shape const& shape = tskSurfShape(*surface);
  if (path.size() > 5 && path.compare(path.size() - 5, 5, ".iges") == 0) {
    IGESControl_Writer writer("IN", 1);
    return writer.AddShape(shape) && (writer.ComputeModel(), writer.Write(path.c_str()));
  }
  // The models are in millimetres; the writer converts them to the unit it is given. The
  // first writer of a process sets up the STEP settings, and a writer takes the unit when it
  // is made: the unit is set between the two.
  { STEPControl_Writer set_up; }
  Interface_Static::SetCVal("xstep.cascade.unit", "MM");
  Interface_Static::SetCVal("write.step.unit", "INCH");
  STEPControl_Writer writer;
  const bool written =
      writer.Transfer(shape, STEPControl_AsIs) == IFSelect_RetDone && writer.Write(path.c_str()) == IFSelect_RetDone;
  Interface_Static::SetCVal("write.step.unit", "MM");
  return written;
}

}  // namespace gfit::testing
