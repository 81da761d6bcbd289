// Pieces shared by the point readers: a store for values whose count is not known in advance,
// the number parser, and a printable form of bytes for messages.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace gfit::cli::detail {

// Values in blocks that never move, so that growing costs no copy; the first blocks are small
// for the many short files, the later ones 1 MB. Nothing is reserved ahead of what is read, so
// a count promised by a file's header can never make the reader allocate beyond the file.
class BlockStore {
 public:
  void push(double v) {
    if (used_ == capacity_) grow();
    blocks_.back()[used_++] = v;
    ++total_;
  }
  size_t total() const { return total_; }
  // Appends everything to `out` and frees each block as soon as it is copied: the peak is the
  // values once plus one block.
  void move_to(std::vector<double>& out);

 private:
  static size_t block_size(size_t index) { return size_t(4096) << (index < 5 ? index : 5); }
  void grow();
  std::vector<std::unique_ptr<double[]>> blocks_;
  size_t capacity_ = 0, used_ = 0, total_ = 0;
};

// Parses the whole of `text` (n characters, NUL-terminated at n) as a finite double: a plain
// decimal through the locale-free parser, anything else (a sign '+', hexadecimal, under- or
// overflow) through strtod, whose rules decide. Underflow gives the nearest double,
// subnormal or zero, and is kept; overflow, NaN, infinities and garbage are refused.
bool parse_number(char const* text, int n, double& value);

// `text` with every byte outside printable ASCII written as \xNN.
std::string printable(char const* text, int n);

}  // namespace gfit::cli::detail
