#include "tools/demo_part.h"

#include <BRepBuilderAPI_MakeEdge.hxx>
#include <BRepBuilderAPI_MakeFace.hxx>
#include <BRepBuilderAPI_MakeWire.hxx>
#include <BRepFilletAPI_MakeFillet.hxx>
#include <BRepPrimAPI_MakePrism.hxx>
#include <BRep_Tool.hxx>
#include <Geom_Curve.hxx>
#include <TopExp_Explorer.hxx>
#include <TopoDS.hxx>
#include <gp_Circ.hxx>

#include <cmath>

#include "gfit/cad/occt.h"
#include "gfit/platform/angle.h"

namespace gfit::demo {

tskSurfPtr bracket() {
  double const w = 80, h = 50, r = 6;
  gp_Pnt corner[4] = {{r, 0, 0}, {w, r, 0}, {w - r, h, 0}, {0, h - r, 0}};
  gp_Pnt centre[4] = {{w - r, r, 0}, {w - r, h - r, 0}, {r, h - r, 0}, {r, r, 0}};
  gp_Pnt end[4] = {{w - r, 0, 0}, {w, h - r, 0}, {r, h, 0}, {0, r, 0}};
  BRepBuilderAPI_MakeWire outline;
  for (int i = 0; i < 4; ++i) {
    outline.Add(BRepBuilderAPI_MakeEdge(corner[i], end[i]).Edge());
    gp_Circ arc(gp_Ax2(centre[i], gp::DZ()), r);
    outline.Add(BRepBuilderAPI_MakeEdge(arc, end[i], corner[(i + 1) % 4]).Edge());
  }
  BRepBuilderAPI_MakeFace base(outline.Wire(), Standard_True);
  gp_Circ hole(gp_Ax2(gp_Pnt(25, 25, 0), gp::DZ()), 8.0);
  base.Add(TopoDS::Wire(BRepBuilderAPI_MakeWire(BRepBuilderAPI_MakeEdge(hole).Edge()).Wire().Reversed()));
  TopoDS_Shape block = BRepPrimAPI_MakePrism(base.Face(), gp_Vec(0, 0, 20)).Shape();
  // Round the outer edges of the top face.
  BRepFilletAPI_MakeFillet fillet(block);
  for (TopExp_Explorer e(block, TopAbs_EDGE); e.More(); e.Next()) {
    Standard_Real first, last;
    Handle(Geom_Curve) c = BRep_Tool::Curve(TopoDS::Edge(e.Current()), first, last);
    gp_Pnt mid = c->Value(0.5 * (first + last));
    bool top = std::fabs(mid.Z() - 20) < 1e-9 && mid.Distance(gp_Pnt(25, 25, 20)) > 8.5;
    if (top) fillet.Add(2.0, TopoDS::Edge(e.Current()));
  }
  return tskSurfFromShape(fillet.Shape());
}

double Noise::normal() {
  if (has_spare_) {
    has_spare_ = false;
    return spare_;
  }
  double u = 1.0 - uniform();  // (0, 1]
  double v = uniform();
  double r = std::sqrt(-2.0 * std::log(u));
  spare_ = r * std::sin(2.0 * giPi * v);
  has_spare_ = true;
  return r * std::cos(2.0 * giPi * v);
}

}  // namespace gfit::demo
