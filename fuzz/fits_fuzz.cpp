// Every public fit entry on decoded point arrays: NaN, infinities, the largest and smallest
// doubles, subnormals, duplicates, points far from the origin, and ordinary geometry.
//
// Input layout: entry, flags, scale exponent, offset, then per point its coordinates (and,
// for the entries that take them, a probe radius and a normal), two bytes a value. A value is
// an int16 times the scale plus the offset, or, for a few reserved codes, a special value or
// a repeat of the previous point's coordinate. An entry must return, never crash, hang or
// trip a sanitizer; a refusal must leave its outputs as they were.
//
// Each input gets a time budget through the host's cancel flag (GFIT_FUZZ_BUDGET_MS, 2 by
// default), so that a search that polls the flag cannot stall the fuzzer; a cancelled fit is
// an ordinary failure here. The axis searches (cylinder, cone, torus, axis of revolution) and
// the other multi-start searches run a fixed schedule of some 1e5 solver steps whatever the
// point count: under the sanitizers and coverage instrumentation a full search on 16 points
// takes 20 to 300 ms, so no budget a million inputs can afford lets it finish. They get at
// most kSearchPoints points, which keeps each solver step cheap; the budget lets a search on
// fuzzed points run its first phases, and the later ones on the inputs that end them early
// (degenerate, refused, quickly determined). Cancelling at a random moment is itself worth
// fuzzing: every search must return cleanly from wherever the flag finds it. A search that
// ignores the flag shows as a slow input (-timeout) instead of hiding behind it. Longer
// runs may raise the budget to reach deeper (GFIT_FUZZ_BUDGET_MS=50).
//
// The fits run on the calling thread alone (GFIT_FUZZ_THREADS, 1 by default): on at most 48
// points, starting worker threads under the sanitizers costs more than the work they share,
// and the threaded order gives the same bits as the sequential one (the thread tests check
// that); set it to 0 to fuzz with the hardware's threads.
//
// GFIT_FUZZ_SKIP (environment): comma-separated entry numbers not to call, for crashers
// already recorded in fuzz/crashers/ and reported to the owners of the code.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <chrono>
#include <limits>
#include <thread>
#include <vector>

#include "gfit/gfit.h"

namespace {

class Decoder {
 public:
  Decoder(uint8_t const* data, size_t size) : data_(data), size_(size) {}
  size_t left() const { return size_ - at_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  int16_t word() {
    uint16_t lo = byte(), hi = byte();
    return static_cast<int16_t>(lo | hi << 8);
  }
  // A coordinate: specials on reserved codes, otherwise code * scale + offset.
  double value(double scale, double offset, double previous) {
    int16_t code = word();
    switch (code) {
      case INT16_MIN: return std::numeric_limits<double>::quiet_NaN();
      case INT16_MIN + 1: return INFINITY;
      case INT16_MIN + 2: return -INFINITY;
      case INT16_MIN + 3: return DBL_MAX;
      case INT16_MIN + 4: return -DBL_MAX;
      case INT16_MIN + 5: return DBL_MIN;
      case INT16_MIN + 6: return 4.9e-324;
      case INT16_MIN + 7: return 1e155;
      case INT16_MIN + 8: return previous;  // duplicates and collinear runs
      case INT16_MIN + 9: {                 // a raw double
        uint64_t bits = 0;
        for (int i = 0; i < 8; ++i) bits |= static_cast<uint64_t>(byte()) << (8 * i);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
      }
      default: return code * scale + offset;
    }
  }

 private:
  uint8_t const* data_;
  size_t size_;
  size_t at_ = 0;
};

constexpr int n_entries = 41;
constexpr int max_points = 48;
constexpr int kSearchPoints = 16;

// The entries whose searches cost a fixed, large number of solver steps (see above).
bool search_entry(int entry) {
  switch (entry) {
    case 6: case 7: case 8: case 9: case 10: case 11: case 12: case 14: case 17: case 18: case 19: case 20:
    case 21: case 22: case 23: case 24: case 25: case 26: case 27:
      return true;
    default:
      return false;
  }
}

struct Input {
  int entry = 0;
  int flags = 0;
  giPoint3coDynArr p3;
  giPoint2coDynArr p2;
  std::vector<giPoint2> v2;
  doublecoDynArr radii;
  std::vector<double> vradii;
  giUnitVec3coDynArr normals;
  giUnitVec2coDynArr normals2;
};

Input decode(uint8_t const* data, size_t size) {
  Decoder d(data, size);
  Input in;
  in.entry = d.byte();
  in.flags = d.byte();
  const double scale = std::ldexp(1.0, (static_cast<int>(d.byte()) - 128) * 8);
  const double offset = static_cast<int8_t>(d.byte()) * std::ldexp(1.0, 4 * (in.flags >> 4));
  const bool with_normals = in.flags & 1;
  const int per_point = 4 + (with_normals ? 3 : 0);
  const int cap = search_entry(in.entry % n_entries) ? kSearchPoints : max_points;
  const int n = std::min<int>(cap, static_cast<int>(d.left() / (2 * per_point)));
  in.p3 = giPoint3coDynArr(n, 16);
  in.p2 = giPoint2coDynArr(n, 16);
  in.radii = doublecoDynArr(n, 16);
  in.normals = giUnitVec3coDynArr(n, 16);
  in.normals2 = giUnitVec2coDynArr(n, 16);
  double x = 0, y = 0, z = 0, r = 0, a = 0, b = 0, c = 1;
  for (int i = 0; i < n; ++i) {
    x = d.value(scale, offset, x);
    y = d.value(scale, offset, y);
    z = d.value(scale, offset, z);
    r = d.value(scale, 0.0, r);
    in.p3.append(giPoint3(x, y, z));
    in.p2.append(giPoint2(x, y));
    in.v2.emplace_back(x, y);
    in.radii.append(r);
    in.vradii.push_back(r);
    if (with_normals) {
      a = d.value(1.0, 0.0, a);
      b = d.value(1.0, 0.0, b);
      c = d.value(1.0, 0.0, c);
    } else {
      a = x, b = y, c = 1.0;  // radial-ish normals
    }
    in.normals.append(giUnitVec3(a, b, c));
    in.normals2.append(giUnitVec2(a, b));
  }
  return in;
}

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "fits_fuzz: %s\n", what);
  std::abort();
}

// A refusal (status 0) must leave the outputs alone: callers start them from these marks.
template <class T>
bool same_bits(T const& a, T const& b) {
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

bool skipped(int entry) {
  static std::vector<int> const skip = [] {
    std::vector<int> list;
    if (char const* text = std::getenv("GFIT_FUZZ_SKIP")) {
      for (char const* s = text; *s;) {
        char* end = nullptr;
        long v = std::strtol(s, &end, 10);
        if (end == s) break;
        list.push_back(static_cast<int>(v));
        s = *end == ',' ? end + 1 : end;
      }
    }
    return list;
  }();
  for (int e : skip)
    if (e == entry) return true;
  return false;
}

// Sets the cancel flag once the current input has run for longer than its budget.
class Watchdog {
 public:
  Watchdog() {
    char const* text = std::getenv("GFIT_FUZZ_BUDGET_MS");
    budget_ms_ = text ? std::atoll(text) : 2;
    std::thread([this] {
      for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        long long start = start_ms_.load();
        if (start >= 0 && now_ms() - start > budget_ms_) flag_.store(true);
      }
    }).detach();
  }
  void begin() {
    flag_.store(false);
    start_ms_.store(now_ms());
    gfSetCancelFlag(&flag_);
  }
  void end() { start_ms_.store(-1); }

 private:
  static long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
  }
  std::atomic<bool> flag_{false};
  std::atomic<long long> start_ms_{-1};
  long long budget_ms_ = 2;
};

void run(Input& in) {
  using E = gfLeastSquareEvaluator;
  const int inside = in.flags >> 1 & 1;
  const int k = in.flags >> 2 & 1;
  const giAngle angle = giAngle::from_degrees(in.flags >> 3 & 1 ? 5.0 : 30.0);
  giPoint3 const origin = in.p3.count() > 0 ? in.p3[0] : giPoint3(0, 0, 0);
  giUnitVec3 const normal = in.normals.count() > 0 ? in.normals[0] : giUnitVec3(0, 0, 1);
  giUnitVec3 const guess = k ? normal : giUnitVec3();
  // Outputs start from recognisable values; refinement (k) reads them as the start.
  giPoint3 p3(1, 2, 3);
  giPoint2 p2(1, 2);
  giUnitVec3 d3(0, 0, 1);
  giUnitVec2 d2(1, 0);
  double r = 1, r2 = 0.5, res = -1, major = 2, minor = 1, ang = 0;
  giPoint3 const p3_before = p3;
  double const res_before = res;
  int status = -1;
  gfit::detail::succeed();  // no stale reason from the previous input
  bool plain_status = true;  // the entry returns 1 or 0 with untouched outputs on 0

  switch (in.entry % n_entries) {
    case 0: status = E::evaluate_line(in.p2, p2, d2, res); plain_status = false; break;
    case 1: status = E::evaluate_line3(in.p3, p3, d3, res); plain_status = false; break;
    case 2: status = E::evaluate_plane(in.p3, p3, d3, res); break;
    case 3: status = E::evaluate_line2(origin, normal, in.p3, p3, d3, res); plain_status = false; break;
    case 4: status = E::evaluate_circle(in.p2, p2, r, res); break;
    case 5: status = E::evaluate_circle2(origin, normal, in.p3, p3, r, res); break;
    case 6: status = E::evaluate_circle3(in.p3, p3, d3, r, res); break;
    case 7: status = E::evaluate_sphere(in.p3, p3, r, res); break;
    case 8: status = E::evaluate_cylinder(in.p3, p3, d3, r, res, guess, angle, k); plain_status = false; break;
    case 9: status = E::evaluate_cylinder(in.p3, in.normals, angle, p3, d3, r, res, k); plain_status = false; break;
    case 10: {
      gfFittedCylindercoDynArr results;
      const int count = 1 + (in.flags >> 5);
      const int found = E::evaluate_multiple_cylinders(in.p3, in.normals, 0.1, angle, count, results);
      // The number of elements found, each in the results.
      if (found < 0 || found > count || found != results.count()) fail("evaluate_multiple_cylinders miscounted");
      status = found > 0;
      plain_status = false;
      break;
    }
    case 11: status = E::evaluate_ellipse(in.p2, p2, major, minor, ang, res); break;
    case 12: status = E::evaluate_ellipse2(origin, normal, guess, in.p3, p3, major, minor, ang, res); break;
    case 13: status = E::evaluate_probed_circle(in.p2, in.radii, inside, p2, r, res); break;
    case 14: status = E::evaluate_probed_sphere(in.p3, in.radii, inside, p3, r, res); break;
    case 15: status = E::evaluate_probed_plane(in.p3, in.radii, in.normals, p3, d3, res); break;
    case 16: status = E::evaluate_probed_line2(in.p2, in.radii, in.normals2, p2, d2, res); break;
    case 17: status = E::evaluate_torus(in.p3, p3, d3, r, r2, res); break;
    case 18: {
      p3 = origin;
      d3 = normal;
      giPoint3 const start = p3;
      status = E::evaluate_torus_with_guess(in.p3, p3, d3, r, r2, res);
      if (status == 0 && !same_bits(p3, start)) fail("evaluate_torus_with_guess wrote its centre on failure");
      plain_status = false;
      break;
    }
    case 19: status = E::evaluate_probed_torus(in.p3, in.radii, inside, p3, d3, r, r2, res); break;
    case 20: status = E::evaluate_axis_rev(in.p3, in.normals, p3, d3, res); plain_status = false; break;
    case 21: status = E::evaluate_cone(in.p3, p3, d3, ang, res, guess, angle, k); plain_status = false; break;
    case 22: status = E::evaluate_cone(in.p3, in.normals, angle, p3, d3, ang, res, k); plain_status = false; break;
    case 23: {
      gfFittedConecoDynArr results;
      const int count = 1 + (in.flags >> 5);
      const int found = E::evaluate_multiple_cones(in.p3, in.normals, 0.1, angle, count, results);
      // The number of elements found, each in the results.
      if (found < 0 || found > count || found != results.count()) fail("evaluate_multiple_cones miscounted");
      status = found > 0;
      plain_status = false;
      break;
    }
    case 24:
      status = E::evaluate_probed_cylinder(in.p3, in.radii, inside, p3, d3, r, res, guess, angle, k);
      plain_status = false;
      break;
    case 25:
      status = E::evaluate_probed_cylinder(in.p3, in.radii, inside, in.normals, angle, p3, d3, r, res, k);
      plain_status = false;
      break;
    case 26: {
      giPoint3coDynArr contacts;
      if (in.flags & 0x40) contacts = in.p3;
      status = E::evaluate_probed_cone(in.p3, in.radii, inside, contacts, p3, d3, ang, res, guess, angle, k);
      plain_status = false;
      break;
    }
    case 27: {
      giPoint3coDynArr contacts;
      status = E::evaluate_probed_cone(in.p3, in.radii, inside, contacts, in.normals, angle, p3, d3, ang, res, k);
      plain_status = false;
      break;
    }
    case 28: { gfDirectCircle2 f(in.p2); (void)f.chi(); status = 1; break; }
    case 29: { gfDirectCircle3 f(in.p3); (void)f.chi(); status = 1; break; }
    case 30: { gfDirectEllipse2 f(in.p2); (void)f.chi(); status = 1; break; }
    case 31: { gfDirectEllipse3 f(in.p3); (void)f.chi(); status = 1; break; }
    case 32: status = gfSphereFit::fit(in.p3, p3, r); break;
    case 33: (void)gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(in.v2); status = 1; break;
    case 34:
      (void)gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(in.v2, in.vradii, inside);
      status = 1;
      break;
    case 35: (void)gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(in.v2); status = 1; break;
    case 36:
      (void)gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(in.v2, in.vradii, inside);
      status = 1;
      break;
    case 37: { double width = 0; (void)gfMinMaxCircleFit::fit(in.v2, width); status = 1; break; }
    case 38: {
      double width = 0;
      (void)gfMinMaxCircleFit::fit_probed(in.v2, in.vradii, inside, width);
      status = 1;
      break;
    }
    case 39: {
      giPoint2coDynArr hull;
      intcoDynArr indices;
      gf_calculate_convex_hull(in.p2, hull);
      gf_calculate_convex_hull(in.p2, indices);
      for (int i = 0; i < indices.count(); ++i)
        if (indices[i] < 0 || indices[i] >= in.p2.count()) fail("hull index out of range");
      status = 1;
      break;
    }
    default: {
      gfContainmentCone cone(in.normals);
      giUnitVec3 axis;
      giAngle half;
      status = cone.solve(axis, half);
      break;
    }
  }
  if (status != 0 && status != 1) fail("status neither 0 nor 1");
  // Bad input (as opposed to a search that failed) is refused before anything is written.
  const gfReason why = gfLastReason();
  const bool refusal = why == gfReason::too_few_points || why == gfReason::non_finite_input ||
                       why == gfReason::bad_companion_array || why == gfReason::bad_probe_radius ||
                       why == gfReason::out_of_range;
  if (plain_status && status == 0 && refusal && (!same_bits(p3, p3_before) || !same_bits(res, res_before)))
    fail("a refusal wrote its outputs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 4) return 0;
  Input in = decode(data, size);
  if (skipped(in.entry % n_entries)) return 0;
  static Watchdog* watchdog = [] {
    char const* threads = std::getenv("GFIT_FUZZ_THREADS");
    gfSetMaxThreads(threads ? std::atoi(threads) : 1);
    return new Watchdog;  // lives as long as its thread
  }();
  watchdog->begin();
  run(in);
  watchdog->end();
  return 0;
}
