#include "tools/ply_reader.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "tools/read_support.h"

namespace gfit::cli {

namespace {

using detail::BlockStore;
using detail::parse_number;
using detail::printable;

enum class Type { int8, uint8, int16, uint16, int32, uint32, float32, float64 };

bool type_named(std::string const& name, Type& type) {
  static const std::pair<char const*, Type> names[] = {
      {"char", Type::int8},     {"int8", Type::int8},       {"uchar", Type::uint8},     {"uint8", Type::uint8},
      {"short", Type::int16},   {"int16", Type::int16},     {"ushort", Type::uint16},   {"uint16", Type::uint16},
      {"int", Type::int32},     {"int32", Type::int32},     {"uint", Type::uint32},     {"uint32", Type::uint32},
      {"float", Type::float32}, {"float32", Type::float32}, {"double", Type::float64}, {"float64", Type::float64}};
  for (auto const& [n, t] : names)
    if (name == n) {
      type = t;
      return true;
    }
  return false;
}

int size_of(Type t) {
  switch (t) {
    case Type::int8:
    case Type::uint8: return 1;
    case Type::int16:
    case Type::uint16: return 2;
    case Type::int32:
    case Type::uint32:
    case Type::float32: return 4;
    case Type::float64: return 8;
  }
  return 8;
}

template <class T>
T load(unsigned char const* b) {
  T v;
  std::memcpy(&v, b, sizeof v);
  return v;
}

// The value of one binary scalar, its bytes in the file's order.
double decode(char const* bytes, Type t, bool swap) {
  unsigned char b[8];
  const int n = size_of(t);
  std::memcpy(b, bytes, static_cast<size_t>(n));
  if (swap) std::reverse(b, b + n);
  switch (t) {
    case Type::int8: return load<std::int8_t>(b);
    case Type::uint8: return load<std::uint8_t>(b);
    case Type::int16: return load<std::int16_t>(b);
    case Type::uint16: return load<std::uint16_t>(b);
    case Type::int32: return load<std::int32_t>(b);
    case Type::uint32: return load<std::uint32_t>(b);
    case Type::float32: return load<float>(b);
    case Type::float64: return load<double>(b);
  }
  return NAN;
}

struct Property {
  std::string name;
  Type type = Type::float64;
  bool list = false;
  Type count_type = Type::uint8;
  int slot = -1;  // for the vertices: 0-2 the coordinates, 3-5 the normal, -1 skipped
};

struct Element {
  std::string name;
  std::int64_t count = 0;
  std::vector<Property> properties;
  std::int64_t line = 0;  // of its header line
};

// The input a byte at a time through a buffer, counting what was consumed.
class Source {
 public:
  explicit Source(std::istream& in) : in_(in), buffer_(new char[size]) {}
  int get() {
    if (pos_ == end_ && !fill()) return -1;
    return static_cast<unsigned char>(buffer_[pos_++]);
  }
  // Copies n bytes to `out` (n at most 8), or returns false at the end of the input.
  bool read(char* out, int n) {
    for (int i = 0; i < n; ++i) {
      if (pos_ == end_ && !fill()) return false;
      out[i] = buffer_[pos_++];
    }
    return true;
  }
  // Skips n bytes, or returns false at the end of the input.
  bool skip(std::uint64_t n) {
    while (n > 0) {
      if (pos_ == end_ && !fill()) return false;
      const std::uint64_t step = std::min<std::uint64_t>(n, end_ - pos_);
      pos_ += static_cast<size_t>(step);
      n -= step;
    }
    return true;
  }
  bool bad() const { return in_.bad(); }

 private:
  static constexpr size_t size = 1 << 16;
  bool fill() {
    in_.read(buffer_.get(), static_cast<std::streamsize>(size));
    const std::streamsize got = in_.gcount();
    pos_ = 0;
    end_ = got > 0 ? static_cast<size_t>(got) : 0;
    return end_ > 0;
  }
  std::istream& in_;
  std::unique_ptr<char[]> buffer_;
  size_t pos_ = 0, end_ = 0;
};

enum class Format { none, ascii, little, big };

class PlyReader {
 public:
  PlyReader(std::istream& in, std::string& error) : source_(in), error_(error) {}
  bool read(int columns, PointTable& points, PointTable& normals);

 private:
  bool next_line(std::string& text, int limit);
  bool header();
  bool binary_records(Element const& e, bool keep);
  bool ascii_records(Element const& e, bool keep);
  bool keep(double const* values, std::int64_t source);
  std::string where() const { return "line " + std::to_string(line_); }

  Source source_;
  std::string& error_;
  std::int64_t line_ = 0;
  Format format_ = Format::none;
  std::vector<Element> elements_;
  size_t vertex_ = 0;  // index of the vertex element
  bool normals_ = false;
  BlockStore points_, normal_values_;
  int rows_ = 0;
  SourceLines lines_;
};

// Reads the next line (without its '\n' or a '\r' before it) of at most `limit` characters;
// false at the end of the input, with error_ set if the line was refused.
bool PlyReader::next_line(std::string& text, int limit) {
  text.clear();
  ++line_;
  std::int64_t column = 0;
  for (;;) {
    const int c = source_.get();
    if (c < 0) {
      if (text.empty()) return false;
      break;
    }
    ++column;
    if (c == '\n') break;
    if (c == 0) {
      error_ = where() + ", column " + std::to_string(column) + ": a NUL byte";
      return false;
    }
    if (static_cast<int>(text.size()) == limit) {
      error_ = where() + ", column " + std::to_string(column) + ": a line longer than " + std::to_string(limit) +
               " characters";
      return false;
    }
    text += static_cast<char>(c);
  }
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return true;
}

std::vector<std::string> words(std::string const& text) {
  std::vector<std::string> out;
  size_t i = 0;
  for (;;) {
    i = text.find_first_not_of(" \t\r\v\f", i);
    if (i == std::string::npos) break;
    size_t j = text.find_first_of(" \t\r\v\f", i);
    out.push_back(text.substr(i, j == std::string::npos ? std::string::npos : j - i));
    i = j;
  }
  return out;
}

bool PlyReader::header() {
  std::string text;
  if (!next_line(text, max_ply_header_line) || text != "ply") {
    if (error_.empty()) error_ = "line 1: not a PLY file (it must open with 'ply')";
    return false;
  }
  for (;;) {
    if (line_ >= max_ply_header_lines) {
      error_ = where() + ": a PLY header longer than " + std::to_string(max_ply_header_lines) + " lines";
      return false;
    }
    if (!next_line(text, max_ply_header_line)) {
      if (error_.empty()) error_ = where() + ": the file ends inside the PLY header (no end_header)";
      return false;
    }
    const std::vector<std::string> w = words(text);
    if (w.empty()) continue;
    std::string const& key = w[0];
    if (key == "comment" || key == "obj_info") continue;
    if (key == "end_header") break;
    if (key == "format") {
      if (format_ != Format::none || w.size() != 3 || w[2] != "1.0") {
        error_ = where() + ": expected one 'format ascii|binary_little_endian|binary_big_endian 1.0'";
        return false;
      }
      if (w[1] == "ascii") {
        format_ = Format::ascii;
      } else if (w[1] == "binary_little_endian") {
        format_ = Format::little;
      } else if (w[1] == "binary_big_endian") {
        format_ = Format::big;
      } else {
        error_ = where() + ": unknown PLY format '" + printable(w[1].data(), int(w[1].size())) + "'";
        return false;
      }
    } else if (key == "element") {
      std::int64_t count = -1;
      if (w.size() == 3) {
        auto r = std::from_chars(w[2].data(), w[2].data() + w[2].size(), count);
        if (r.ec != std::errc() || r.ptr != w[2].data() + w[2].size()) count = -1;
      }
      if (count < 0) {
        error_ = where() + ": expected 'element NAME COUNT' with a count of 0 or more";
        return false;
      }
      elements_.push_back(Element{w[1], count, {}, line_});
    } else if (key == "property") {
      if (elements_.empty()) {
        error_ = where() + ": a property before any element";
        return false;
      }
      Property p;
      const bool list = w.size() >= 2 && w[1] == "list";
      if (w.size() != (list ? 5u : 3u)) {
        error_ = where() + ": expected 'property TYPE NAME' or 'property list COUNT_TYPE TYPE NAME'";
        return false;
      }
      p.list = list;
      p.name = w.back();
      std::string const& type = w[list ? 3 : 1];
      if (!type_named(type, p.type) || (list && !type_named(w[2], p.count_type))) {
        std::string const& bad = list && !type_named(w[2], p.count_type) ? w[2] : type;
        error_ = where() + ": unknown property type '" + printable(bad.data(), int(bad.size())) + "'";
        return false;
      }
      elements_.back().properties.push_back(p);
    } else {
      error_ = where() + ": unknown PLY header keyword '" + printable(key.data(), int(key.size())) + "'";
      return false;
    }
  }
  if (format_ == Format::none) {
    error_ = where() + ": the PLY header has no format line";
    return false;
  }
  for (vertex_ = 0; vertex_ < elements_.size() && elements_[vertex_].name != "vertex"; ++vertex_) {
  }
  if (vertex_ == elements_.size()) {
    error_ = "the PLY header has no vertex element";
    return false;
  }
  Element& v = elements_[vertex_];
  static char const* const slots[] = {"x", "y", "z", "nx", "ny", "nz"};
  int found[6] = {0, 0, 0, 0, 0, 0};
  for (Property& p : v.properties)
    for (int s = 0; s < 6; ++s)
      if (p.name == slots[s] && !found[s]) {
        if (p.list) {
          error_ = "line " + std::to_string(v.line) + ": the vertex property " + p.name + " is a list";
          return false;
        }
        p.slot = s;
        found[s] = 1;
      }
  for (int s = 0; s < 3; ++s)
    if (!found[s]) {
      error_ = "line " + std::to_string(v.line) + ": the vertex element has no property " + slots[s];
      return false;
    }
  const int normal_count = found[3] + found[4] + found[5];
  if (normal_count != 0 && normal_count != 3) {
    error_ = "line " + std::to_string(v.line) + ": the vertex element has only some of nx, ny, nz";
    return false;
  }
  normals_ = normal_count == 3;
  if (v.count > INT_MAX) {
    error_ = "line " + std::to_string(v.line) + ": more than " + std::to_string(INT_MAX) + " vertices";
    return false;
  }
  return true;
}

bool PlyReader::keep(double const* values, std::int64_t source) {
  for (int s = 0; s < (normals_ ? 6 : 3); ++s)
    if (!std::isfinite(values[s])) {
      error_ = (format_ == Format::ascii ? "line " : "vertex ") + std::to_string(source) + ": a non-finite value";
      return false;
    }
  for (int s = 0; s < 3; ++s) points_.push(values[s]);
  if (normals_)
    for (int s = 3; s < 6; ++s) normal_values_.push(values[s]);
  lines_.add(rows_++, source);
  return true;
}

bool PlyReader::binary_records(Element const& e, bool keep_values) {
  const bool little_host = [] {
    const std::uint16_t one = 1;
    unsigned char b[2];
    std::memcpy(b, &one, 2);
    return b[0] == 1;
  }();
  const bool swap = little_host != (format_ == Format::little);
  char bytes[8];
  double values[6] = {0, 0, 0, 0, 0, 0};
  if (e.properties.empty()) return true;  // records of no bytes, however many
  for (std::int64_t r = 0; r < e.count; ++r) {
    for (Property const& p : e.properties) {
      bool ok = true;
      if (p.list) {
        ok = source_.read(bytes, size_of(p.count_type));
        if (ok) {
          const double n = decode(bytes, p.count_type, swap);
          if (!(n >= 0) || n != std::floor(n) || n > 4294967295.0) {
            error_ = e.name + " " + std::to_string(r + 1) + ": the list " + p.name + " has a count of " +
                     std::to_string(n);
            return false;
          }
          ok = source_.skip(static_cast<std::uint64_t>(n) * static_cast<std::uint64_t>(size_of(p.type)));
        }
      } else {
        ok = source_.read(bytes, size_of(p.type));
        if (ok && p.slot >= 0) values[p.slot] = decode(bytes, p.type, swap);
      }
      if (!ok) {
        error_ = source_.bad() ? "read error"
                               : "the PLY header promises " + std::to_string(e.count) + " " + e.name +
                                     " records; the file ends inside record " + std::to_string(r + 1);
        return false;
      }
    }
    if (keep_values && !keep(values, r + 1)) return false;
  }
  return true;
}

bool PlyReader::ascii_records(Element const& e, bool keep_values) {
  std::string text;
  double values[6] = {0, 0, 0, 0, 0, 0};
  char field[max_field_chars + 1];
  for (std::int64_t r = 0; r < e.count;) {
    if (!next_line(text, 1 << 16)) {
      if (error_.empty())
        error_ = source_.bad() ? "read error"
                               : "the PLY header promises " + std::to_string(e.count) + " " + e.name +
                                     " records; the file ends after " + std::to_string(r);
      return false;
    }
    size_t i = 0;
    int column = 0;
    // The next value on the line into `field`; false when the line has no more.
    auto next = [&](double& v, char const* what) -> bool {
      i = text.find_first_not_of(" \t\r\v\f", i);
      if (i == std::string::npos) {
        error_ = where() + ": the line ends before " + e.name + " property " + what;
        return false;
      }
      size_t j = std::min(text.find_first_of(" \t\r\v\f", i), text.size());
      ++column;
      const int n = static_cast<int>(j - i);
      if (n > max_field_chars) {
        error_ = where() + ", column " + std::to_string(column) + ": a field longer than " +
                 std::to_string(max_field_chars) + " characters";
        return false;
      }
      std::memcpy(field, text.data() + i, static_cast<size_t>(n));
      field[n] = '\0';
      i = j;
      if (!parse_number(field, n, v)) {
        error_ = where() + ", column " + std::to_string(column) + " (" + what + "): '" + printable(field, n) +
                 "' is not a finite number";
        return false;
      }
      return true;
    };
    if (text.find_first_not_of(" \t\r\v\f") == std::string::npos) continue;  // a blank line
    double v = 0.0;
    for (Property const& p : e.properties) {
      if (p.list) {
        if (!next(v, p.name.c_str())) return false;
        if (v < 0 || v != std::floor(v)) {
          error_ = where() + ", column " + std::to_string(column) + ": a list count of " + field;
          return false;
        }
        for (double k = 0; k < v; ++k)
          if (!next(values[0], p.name.c_str())) return false;
      } else {
        if (!next(v, p.name.c_str())) return false;
        if (p.slot >= 0) values[p.slot] = v;
      }
    }
    if (text.find_first_not_of(" \t\r\v\f", i) != std::string::npos) {
      error_ = where() + ", column " + std::to_string(column + 1) + ": more values than the " + e.name +
               " element has properties";
      return false;
    }
    if (keep_values && !keep(values, line_)) return false;
    ++r;
  }
  return true;
}

bool PlyReader::read(int columns, PointTable& points, PointTable& normals) {
  if (columns != 0 && columns != 3) {
    error_ = "a PLY vertex has x, y and z; this element takes " + std::to_string(columns) + " coordinates";
    return false;
  }
  if (!header()) return false;
  for (size_t k = 0; k <= vertex_; ++k) {
    Element const& e = elements_[k];
    const bool keep_values = k == vertex_;
    if (!(format_ == Format::ascii ? ascii_records(e, keep_values) : binary_records(e, keep_values))) return false;
  }
  points.columns = 3;
  points_.move_to(points.values);
  points.source_lines = lines_;
  if (normals_) {
    normals.columns = 3;
    normal_values_.move_to(normals.values);
    normals.source_lines = lines_;
  }
  return true;
}

}  // namespace

bool read_ply(std::istream& in, int columns, int max_columns, PointTable& points, PointTable& normals,
              std::string& error) {
  (void)max_columns;  // a vertex gives no further value per point
  points = PointTable();
  normals = PointTable();
  error.clear();
  bool ok = false;
  try {
    PlyReader reader(in, error);
    ok = reader.read(columns, points, normals);
  } catch (std::bad_alloc const&) {
    error = "out of memory";
    ok = false;
  }
  if (!ok) {
    points = PointTable();
    normals = PointTable();
    if (error.empty()) error = "malformed PLY file";
  }
  return ok;
}

}  // namespace gfit::cli
