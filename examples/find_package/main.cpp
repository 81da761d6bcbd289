// Fits a plane to four probed points of a face and prints its flatness residual.
#include <gfit/gfit.h>

#include <cstdio>

int main() {
  giPoint3coDynArr points{giPoint3(0, 0, 10.001), giPoint3(50, 0, 9.999), giPoint3(50, 30, 10.002),
                          giPoint3(0, 30, 9.998)};
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  if (gfLeastSquareEvaluator::evaluate_plane(points, point, normal, residual) != 1) return 1;
  std::printf("plane through (%.4f, %.4f, %.4f), normal (%.6f, %.6f, %.6f), rms %.6f\n", point.x(), point.y(),
              point.z(), normal.x(), normal.y(), normal.z(), residual);
  return residual < 0.01 ? 0 : 1;
}
