#include "tools/point_reader.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>

namespace gfit::cli {

std::int64_t SourceLines::operator[](int point) const {
  auto after = std::upper_bound(runs_.begin(), runs_.end(), point,
                                [](int p, std::pair<int, std::int64_t> const& run) { return p < run.first; });
  if (after == runs_.begin()) return point + 1;  // not read: no better answer than the plain numbering
  return point + std::prev(after)->second;
}

void SourceLines::add(int point, std::int64_t line) {
  if (runs_.empty() || runs_.back().second != line - point) runs_.emplace_back(point, line - point);
}

namespace {

// Values in blocks that never move, so that growing costs no copy; the first blocks are small
// for the many short files, the later ones 1 MB.
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
  void move_to(std::vector<double>& out) {
    out.clear();
    out.reserve(total_);
    size_t left = total_;
    for (auto& block : blocks_) {
      size_t n = std::min(left, block_size(&block - blocks_.data()));
      out.insert(out.end(), block.get(), block.get() + n);
      left -= n;
      block.reset();
    }
    blocks_.clear();
  }

 private:
  static size_t block_size(size_t index) { return size_t(4096) << std::min<size_t>(index, 5); }
  void grow() {
    capacity_ = block_size(blocks_.size());
    blocks_.emplace_back(new double[capacity_]);
    used_ = 0;
  }
  std::vector<std::unique_ptr<double[]>> blocks_;
  size_t capacity_ = 0, used_ = 0, total_ = 0;
};

std::string printable(char const* text, int n) {
  static char const hex[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == ','; }

}  // namespace

bool read_points(std::istream& in, int columns, PointTable& table, std::string& error, int max_columns) {
  table = PointTable();
  const int lowest = columns == 0 ? 2 : columns;
  const int highest = columns == 0 ? 3 : (max_columns > columns ? max_columns : columns);
  table.columns = lowest == highest ? lowest : 0;

  BlockStore store;
  std::vector<double> row(static_cast<size_t>(highest));
  char field[max_field_chars + 1];
  int field_length = 0;
  long long found = 0;  // values on the current line (only the first `highest` are kept)
  int points = 0;
  std::int64_t line = 1, column = 0;
  bool comment = false;
  auto where = [&] { return "line " + std::to_string(line); };

  auto end_field = [&]() -> bool {
    if (field_length == 0) return true;
    field[field_length] = '\0';
    // The common case, a plain decimal, through the fast locale-free parser; anything else
    // (a sign '+', hexadecimal, under- or overflow, garbage) through strtod, whose rules
    // decide: underflow gives the nearest double, subnormal or zero, and is kept; overflow
    // gives an infinity and is refused with the other non-finite values.
    double v = 0.0;
    char const* end = field + field_length;
    auto parsed = std::from_chars(field, end, v);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
      char* stop = nullptr;
      errno = 0;
      v = std::strtod(field, &stop);
      if (stop != end) v = NAN;
    }
    if (!std::isfinite(v)) {
      error = where() + ": '" + printable(field, field_length) + "' is not a finite number";
      return false;
    }
    if (found < highest) row[static_cast<size_t>(found)] = v;
    ++found;
    field_length = 0;
    return true;
  };

  auto end_line = [&]() -> bool {
    if (!end_field()) return false;
    if (found > 0) {
      if (table.columns == 0) {
        if (found < lowest || found > highest) {
          error = where() + ": expected " + std::to_string(lowest) + " to " + std::to_string(highest) +
                  " values, found " + std::to_string(found);
          return false;
        }
        table.columns = static_cast<int>(found);
      }
      if (found != table.columns) {
        error = where() + ": expected " + std::to_string(table.columns) + " coordinates, found " +
                std::to_string(found);
        return false;
      }
      if (points == INT_MAX) {
        error = where() + ": more than " + std::to_string(INT_MAX) + " points";
        return false;
      }
      for (int i = 0; i < table.columns; ++i) store.push(row[static_cast<size_t>(i)]);
      table.source_lines.add(points++, line);
    }
    found = 0;
    comment = false;
    ++line;
    column = 0;
    return true;
  };

  auto fail = [&] {
    table = PointTable();
    return false;
  };

  try {
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
          return fail();
        }
        if (c == '\n') {
          if (!end_line()) return fail();
        } else if (comment) {
          continue;
        } else if (c == '#') {
          if (!end_field()) return fail();
          comment = true;
        } else if (is_space(c)) {
          if (!end_field()) return fail();
        } else if (field_length == max_field_chars) {
          error = where() + ", column " + std::to_string(column) + ": a field longer than " +
                  std::to_string(max_field_chars) + " characters";
          return fail();
        } else {
          field[field_length++] = c;
        }
      }
    }
    if (in.bad()) {
      error = "read error";
      return fail();
    }
    if (!end_line()) return fail();  // a last line without its newline
    store.move_to(table.values);
  } catch (std::bad_alloc const&) {
    error = where() + ": out of memory after " + std::to_string(points) + " points";
    return fail();
  }
  return true;
}

}  // namespace gfit::cli
