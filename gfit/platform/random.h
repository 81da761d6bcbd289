// The library's random numbers: an exact linear congruential recurrence, so that every
// randomised search gives the same answer on every compiler, library and platform.
//   state <- state * 214013 + 2531011   (mod 2^32)
//   draw   = (state >> 16) & 0x7fff      (0 .. 32767)
// The searches seed it with 1 and take unit draws, draw / 32767.0, in [0, 1].
#pragma once

#include <cstdint>

class mlRandom {
 public:
  static constexpr int max_draw = 32767;

  explicit mlRandom(std::uint32_t seed = 1) : state_(seed) {}
  void seed(std::uint32_t s) { state_ = s; }

  int next() {
    state_ = state_ * 214013u + 2531011u;
    return static_cast<int>((state_ >> 16) & 0x7fffu);
  }
  double next_unit() { return next() / 32767.0; }

 private:
  std::uint32_t state_;
};
