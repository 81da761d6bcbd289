// The CAD reader on mutated STEP files (the seed corpus holds real parts): every file gives a
// surface or an error message, never a crash or a sanitizer report. A surface that is read is also projected onto
// and asked for normals, as `gfit deviations` does.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sanitizer/lsan_interface.h>

#include "gfit/cad/surface.h"

namespace {

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "cad_reader_fuzz: %s\n", what);
  std::abort();
}

std::string const& scratch_path() {
  static const std::string path = [] {
    char const* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/gfit-cad-fuzz-" + std::to_string(getpid()) + ".step";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const& path = scratch_path();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) fail("cannot write the scratch file");
  if (size > 0 && std::fwrite(data, 1, size, f) != size) fail("cannot write the scratch file");
  std::fclose(f);
  std::string error;
  tskSurfPtr surface;
  {
    // A file that faults the reader leaks what OpenCASCADE's abandoned frames held (the
    // documented cost of the fault guard), so leaks are not counted while reading; the
    // projections below are.
    __lsan::ScopedDisabler off;
    surface = tskSurf::read(path, error);
  }
  std::remove(path.c_str());
  if (!surface) {
    if (error.empty()) fail("refused without a message");
    return 0;
  }
  // A few points around the part's box: feet and normals must not fault either.
  tskSurfPointList feet;
  const giPoint3 probes[] = {giPoint3(0, 0, 0), giPoint3(40, 10, 22), giPoint3(-3, 25, -2), giPoint3(1e6, -1e6, 3)};
  for (giPoint3 const& p : probes) {
    surface->project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
    for (int i = 0; i < feet.count(); ++i) {
      giUnitVec3 n;
      (void)surface->normal(feet[i], 1e-5, 1e-5, n);
      if (feet[i].face < 0 || feet[i].face >= surface->n_faces()) fail("a foot on a face that does not exist");
    }
  }
  return 0;
}
