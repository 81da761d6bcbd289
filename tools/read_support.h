// Pieces shared by the point readers: a store for values whose count is not known in advance,
// the number parser, and a printable form of bytes for messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
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

// Reads `in` to its end in 64 KB blocks and hands each byte to on_byte(c) ('\n' included),
// counting it in `column` first (the caller resets `column` at each new line). A text reader
// never holds more than its own line state, however long a line is. Returns false when
// on_byte does (which has said why in `error`), at a NUL byte, which no text format allows
// ("<where()>, column N: a NUL byte"), and on a read error.
template <class Where, class OnByte>
bool scan_bytes(std::istream& in, std::int64_t& column, Where const& where, std::string& error, OnByte&& on_byte) {
  static constexpr std::streamsize chunk = 1 << 16;
  std::unique_ptr<char[]> buffer(new char[chunk]);
  for (;;) {
    in.read(buffer.get(), chunk);
    const std::streamsize got = in.gcount();
    if (got <= 0) break;
    for (std::streamsize k = 0; k < got; ++k) {
      const char c = buffer[k];
      ++column;
      if (c == '\0') {
        error = where() + ", column " + std::to_string(column) + ": a NUL byte";
        return false;
      }
      if (!on_byte(c)) return false;
    }
  }
  if (in.bad()) {
    error = "read error";
    return false;
  }
  return true;
}

}  // namespace gfit::cli::detail
