// Reads a CAD part and reports where a probed point lies relative to it, as a measuring
// application would after touching the part with a 2 mm ball.
#include <gfit/cad.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: probe_part PART.step\n");
    return 2;
  }
  std::string error;
  tskSurfPtr part = tskSurf::read(argv[1], error);
  if (!part) {
    std::fprintf(stderr, "probe_part: %s\n", error.c_str());
    return 1;
  }
  gfSurfaceForFitting nominal(part);
  gfProjectorForFitting3coPrf projector = nominal.create_projector();
  // The ball centre 2.01 mm above the top face (z = 20), probing downwards.
  gfProbedPoint3 probed(giPoint3(40, 10, 22.01), giUnitVec3(0, 0, 1), 2.0);
  gfProjectedPoint3 result;
  probed.initial_projection(result, projector.get());
  if (result.invalid()) return 1;
  std::printf("%d faces; nominal centre (%.4f, %.4f, %.4f), deviation %.4f\n", part->n_faces(),
              result.nominal_point().x(), result.nominal_point().y(), result.nominal_point().z(),
              result.signed_distance());
  return 0;
}
