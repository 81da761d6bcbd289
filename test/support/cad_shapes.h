// CAD parts and single faces made with OpenCASCADE, for the surface kernel's tests and its
// benchmarks. Lengths in millimetres. Callers need no OpenCASCADE header.
#pragma once

#include <string>
#include <vector>

#include "gfit/cad/surface.h"

namespace gfit::testing {

// Single faces in the frame (origin, axis); full turns unless stated.
tskSurfPtr plane_face(giPoint3 const& origin, giUnitVec3 const& normal, double half_size);
tskSurfPtr cylinder_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double height);
// The half of the cylinder on the side of +X of the frame OpenCASCADE chooses for `axis`.
tskSurfPtr half_cylinder_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double height);
tskSurfPtr sphere_face(giPoint3 const& centre, double radius);
// Radius `radius` at the origin, opening by `half_angle` along +axis, heights 0 .. height.
tskSurfPtr cone_face(giPoint3 const& origin, giUnitVec3 const& axis, double radius, double half_angle, double height);
tskSurfPtr torus_face(giPoint3 const& centre, giUnitVec3 const& axis, double major, double minor);
// z = 5 sin(x / 15) cos(y / 20) over [0, 100]^2, interpolated by a bicubic B-spline.
tskSurfPtr bspline_face();
double bspline_height(double x, double y);

// Solids.
tskSurfPtr box(giPoint3 const& corner, double dx, double dy, double dz);
// A shaft of radius 10 along +z from z = 0 to 40 standing on a flange of radius 25 and
// thickness 5 (z = 0 .. 5): cylinders and planes, the shaft's turn about z left free by it.
tskSurfPtr flanged_cylinder();
// 100 x 60 x 10 plate on z = 0 with a through hole of radius 8 at (30, 30).
tskSurfPtr plate_with_hole();
// 60 x 40 x 30 block at the origin with every edge rounded by 5.
tskSurfPtr filleted_block();
// A 10 n x 10 n x 8 plate with n x n through holes of radius 3: n^2 + 6 faces.
tskSurfPtr holed_plate(int n);

// The demo part (tools/demo_part.h): an 80 x 50 x 20 bracket with rounded vertical corners
// (radius 6), a through hole of radius 8 at (25, 25) and its top outer edges rounded by 2
// (planes, cylinders, tori).
tskSurfPtr demo_bracket();

// The faces of several surfaces in one, in the order given.
tskSurfPtr compound(std::vector<tskSurfPtr> const& parts);
// The same surface with every face converted to a B-spline face.
tskSurfPtr as_bspline(tskSurfPtr const& surface);
// A new surface over the shape OpenCASCADE holds for `surface` (after a non-uniform scale:
// its B-spline image).
tskSurfPtr from_own_shape(tskSurfPtr const& surface);
// A surface without faces (a single vertex).
tskSurfPtr no_faces();

// Writes `surface` to a STEP or IGES file (by the extension of `path`) whose length unit is
// the inch, as a CAD system set to inches would: the file's numbers are the millimetres / 25.4.
bool write_in_inches(tskSurfPtr const& surface, std::string const& path);

}  // namespace gfit::testing
