#include "tools/table_reader.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "tools/read_support.h"

namespace gfit::cli {

namespace {

using detail::BlockStore;
using detail::parse_number;
using detail::printable;

char separator_of(std::string const& line) {
  if (line.find(';') != std::string::npos) return ';';
  if (line.find('\t') != std::string::npos) return '\t';
  if (line.find(',') != std::string::npos) return ',';
  return ' ';
}

// Characters trimmed from a field's ends; with spaces as separator, the separators.
bool is_blank(char c, char sep) {
  return c == ' ' || c == '\r' || c == '\v' || c == '\f' || (c == '\t' && sep != '\t');
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_name(std::string const& a, std::string const& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

std::string upper(std::string s) {
  for (char& c : s)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return s;
}

// One line cut into fields: quotes removed (a separator inside quotes is text), each field
// trimmed. The buffers are reused from line to line, so a row costs no allocation.
class Fields {
 public:
  void split(std::string const& line, char sep) {
    text_.clear();
    spans_.clear();
    const size_t n = line.size();
    if (sep == ' ') {
      size_t i = 0;
      for (;;) {
        while (i < n && is_blank(line[i], sep)) ++i;
        if (i == n) break;
        const size_t start = text_.size();
        bool quoted = false;
        for (; i < n && (quoted || !is_blank(line[i], sep)); ++i) {
          if (line[i] == '"')
            quoted = !quoted;
          else
            text_ += line[i];
        }
        spans_.emplace_back(start, text_.size() - start);
      }
      return;
    }
    size_t start = 0;
    bool quoted = false;
    for (size_t i = 0; i < n; ++i) {
      const char c = line[i];
      if (c == '"') {
        quoted = !quoted;
      } else if (c == sep && !quoted) {
        finish(start, sep);
        start = text_.size();
      } else {
        text_ += c;
      }
    }
    finish(start, sep);
  }
  int size() const { return static_cast<int>(spans_.size()); }
  char const* data(int i) const { return text_.data() + spans_[static_cast<size_t>(i)].first; }
  int length(int i) const { return static_cast<int>(spans_[static_cast<size_t>(i)].second); }
  std::string str(int i) const { return std::string(data(i), static_cast<size_t>(length(i))); }

 private:
  void finish(size_t start, char sep) {
    size_t b = start, e = text_.size();
    while (b < e && is_blank(text_[b], sep)) ++b;
    while (e > b && is_blank(text_[e - 1], sep)) --e;
    spans_.emplace_back(b, e - b);
  }
  std::string text_;
  std::vector<std::pair<size_t, size_t>> spans_;
};

// Parses field `i` as a number, a decimal comma read as a point where the separator allows it.
bool field_number(Fields const& f, int i, char sep, double& v) {
  const int n = f.length(i);
  if (n == 0 || n > max_field_chars) return false;
  char buffer[max_field_chars + 1];
  char const* p = f.data(i);
  const bool comma = sep == ';' || sep == '\t';
  for (int k = 0; k < n; ++k) buffer[k] = comma && p[k] == ',' ? '.' : p[k];
  buffer[n] = '\0';
  return parse_number(buffer, n, v);
}

// Where each kept value comes from: the point's values first, then three normal components.
struct Layout {
  std::vector<int> field;       // 0-based field of each kept value
  std::vector<std::string> name;  // the header's name for it, or empty
  int point_values = 0;
  bool normals = false;
  int fields = 0;  // fields per row
};

class TableReader {
 public:
  TableReader(std::string const& choice, int columns, int max_columns, std::string& error)
      : choice_(choice),
        columns_(columns),
        lowest_(columns == 0 ? 2 : columns),
        highest_(columns == 0 ? 3 : (max_columns > columns ? max_columns : columns)),
        error_(error) {}

  bool read(std::istream& in, PointTable& points, PointTable& normals);

 private:
  bool line(std::string const& text);
  bool row();
  bool header_layout();
  bool positional_layout();
  bool chosen_layout(bool header);
  bool count_layout(int n, std::string const& what);
  std::string where() const { return "line " + std::to_string(line_); }
  std::string column(int slot) const {
    std::string s = where() + ", column " + std::to_string(layout_.field[static_cast<size_t>(slot)] + 1);
    if (!layout_.name[static_cast<size_t>(slot)].empty()) s += " (" + layout_.name[static_cast<size_t>(slot)] + ")";
    return s;
  }
  int find(std::string const& name) const {
    for (int i = 0; i < fields_.size(); ++i)
      if (same_name(fields_.str(i), name)) return i;
    return -1;
  }

  std::string const& choice_;
  const int columns_, lowest_, highest_;
  std::string& error_;
  std::int64_t line_ = 0;
  char sep_ = 0;  // 0 until the header or the first point fixes it
  std::string pending_;  // why the first skipped line would be malformed, if no header follows
  Fields fields_;
  Layout layout_;
  std::vector<double> row_;
  BlockStore points_, normals_;
  int rows_ = 0;
  SourceLines lines_;
};

bool TableReader::count_layout(int n, std::string const& what) {
  if (n >= lowest_ && n <= highest_) {
    layout_.point_values = n;
  } else if (n - 3 >= lowest_ && n - 3 <= highest_) {
    layout_.point_values = n - 3;
    layout_.normals = true;
  } else {
    std::string range = lowest_ == highest_ ? std::to_string(lowest_)
                                             : std::to_string(lowest_) + " to " + std::to_string(highest_);
    std::string range3 = lowest_ == highest_ ? std::to_string(lowest_ + 3)
                                              : std::to_string(lowest_ + 3) + " to " + std::to_string(highest_ + 3);
    error_ = what + ": expected " + range + " values, or " + range3 + " with normals, found " + std::to_string(n);
    return false;
  }
  return true;
}

bool TableReader::positional_layout() {
  const int n = fields_.size();
  if (!count_layout(n, where())) return false;
  for (int i = 0; i < n; ++i) {
    layout_.field.push_back(i);
    layout_.name.emplace_back();
  }
  return true;
}

// The columns of `--columns`: header names (with a header) or 1-based numbers.
bool TableReader::chosen_layout(bool header) {
  size_t start = 0;
  for (;;) {
    size_t comma = choice_.find(',', start);
    std::string token = choice_.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    bool number = !token.empty() && token.size() < 10 && token.find_first_not_of("0123456789") == std::string::npos;
    int field = -1;
    if (number) {
      field = std::stoi(token) - 1;
      if (field < 0 || field >= fields_.size()) {
        error_ = where() + ": --columns asks for column " + token + ", the line has " +
                 std::to_string(fields_.size());
        return false;
      }
    } else if (header) {
      field = find(token);
      if (field < 0) {
        error_ = where() + ": the header has no column named '" + printable(token.data(), int(token.size())) + "'";
        return false;
      }
    } else {
      error_ = where() + ": --columns names '" + printable(token.data(), int(token.size())) +
               "' but the file has no header line naming it";
      return false;
    }
    layout_.field.push_back(field);
    layout_.name.push_back(header ? fields_.str(field) : std::string());
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return count_layout(static_cast<int>(layout_.field.size()), "--columns");
}

bool TableReader::header_layout() {
  auto add = [&](int field) {
    layout_.field.push_back(field);
    layout_.name.push_back(fields_.str(field));
  };
  const int x = find("x"), y = find("y"), z = find("z");
  for (auto [index, name] : {std::pair<int, char const*>{x, "X"}, {y, "Y"}}) {
    if (index < 0) {
      error_ = where() + ": the header names no " + name + " column";
      return false;
    }
  }
  int coordinates = columns_ == 0 ? (z >= 0 ? 3 : 2) : columns_;
  if (coordinates == 2 && z >= 0) {
    error_ = where() + ": the header has a Z column but 2 coordinates are taken; choose them with --columns";
    return false;
  }
  if (coordinates == 3 && z < 0) {
    error_ = where() + ": the header names no Z column";
    return false;
  }
  if (coordinates > 3) {
    error_ = where() + ": choose the " + std::to_string(coordinates) + " columns with --columns";
    return false;
  }
  add(x);
  add(y);
  if (coordinates == 3) add(z);
  layout_.point_values = coordinates;
  if (highest_ > coordinates) {
    int r = find("r");
    if (r < 0) r = find("radius");
    if (r >= 0) {
      add(r);
      ++layout_.point_values;
    }
  }
  for (auto const& names : {std::vector<char const*>{"i", "j", "k"}, std::vector<char const*>{"nx", "ny", "nz"}}) {
    int found[3], count = 0;
    for (int a = 0; a < 3; ++a) count += (found[a] = find(names[static_cast<size_t>(a)])) >= 0;
    if (count == 0 || layout_.normals) continue;
    if (count < 3) {
      error_ = where() + ": the header has only some of the normal columns " + upper(names[0]) + ", " +
               upper(names[1]) + ", " + upper(names[2]);
      return false;
    }
    for (int a = 0; a < 3; ++a) add(found[a]);
    layout_.normals = true;
  }
  return true;
}

bool is_known_name(std::string const& s) {
  for (char const* name : {"x", "y", "z", "i", "j", "k", "nx", "ny", "nz"})
    if (same_name(s, name)) return true;
  return false;
}

bool TableReader::line(std::string const& text) {
  size_t first = text.find_first_not_of(" \t\r\v\f");
  if (first == std::string::npos || text[first] == '#') return true;  // blank or a comment
  if (sep_ != 0) {
    fields_.split(text, sep_);
    return row();
  }
  // Before the first point: a header, the first point, or a line to skip.
  const char sep = separator_of(text);
  fields_.split(text, sep);
  int numbers = 0, names = 0, first_text = -1;
  double v = 0.0;
  for (int i = 0; i < fields_.size(); ++i) {
    if (field_number(fields_, i, sep, v)) {
      ++numbers;
    } else {
      if (first_text < 0) first_text = i;
      names += is_known_name(fields_.str(i));
    }
  }
  const bool chosen_by_name = !choice_.empty() && choice_.find_first_not_of("0123456789,") != std::string::npos;
  if (first_text >= 0) {
    bool header = names >= 2;
    if (chosen_by_name && !header) {
      header = true;  // every name of the choice is on the line
      size_t start = 0;
      for (;;) {
        size_t comma = choice_.find(',', start);
        std::string token = choice_.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        bool number = !token.empty() && token.find_first_not_of("0123456789") == std::string::npos;
        if (!number && find(token) < 0) header = false;
        if (comma == std::string::npos) break;
        start = comma + 1;
      }
    }
    if (!header) {
      if (pending_.empty())
        pending_ = where() + ", column " + std::to_string(first_text + 1) + ": '" +
                   printable(fields_.data(first_text), fields_.length(first_text)) + "' is not a finite number";
      return true;
    }
    sep_ = sep;
    layout_.fields = fields_.size();
    return choice_.empty() ? header_layout() : chosen_layout(true);
  }
  // The first point, without a header.
  if (!pending_.empty()) {
    error_ = pending_ + " (and no header line names the X and Y columns)";
    return false;
  }
  sep_ = sep;
  layout_.fields = fields_.size();
  if (!(choice_.empty() ? positional_layout() : chosen_layout(false))) return false;
  return row();
}

bool TableReader::row() {
  if (fields_.size() != layout_.fields) {
    error_ = where() + ": expected " + std::to_string(layout_.fields) + " fields, found " +
             std::to_string(fields_.size());
    return false;
  }
  const int kept = static_cast<int>(layout_.field.size());
  row_.resize(static_cast<size_t>(kept));
  for (int s = 0; s < kept; ++s) {
    const int f = layout_.field[static_cast<size_t>(s)];
    const int n = fields_.length(f);
    if (n == 0) {
      error_ = column(s) + ": no value";
      return false;
    }
    if (n > max_field_chars) {
      error_ = column(s) + ": a field longer than " + std::to_string(max_field_chars) + " characters";
      return false;
    }
    if (!field_number(fields_, f, sep_, row_[static_cast<size_t>(s)])) {
      error_ = column(s) + ": '" + printable(fields_.data(f), n) + "' is not a finite number";
      return false;
    }
  }
  if (rows_ == INT_MAX) {
    error_ = where() + ": more than " + std::to_string(INT_MAX) + " points";
    return false;
  }
  for (int s = 0; s < layout_.point_values; ++s) points_.push(row_[static_cast<size_t>(s)]);
  for (int s = layout_.point_values; s < kept; ++s) normals_.push(row_[static_cast<size_t>(s)]);
  lines_.add(rows_++, line_);
  return true;
}

bool TableReader::read(std::istream& in, PointTable& points, PointTable& normals) {
  std::string text;
  line_ = 1;
  std::int64_t column = 0;
  const bool read = detail::scan_bytes(in, column, [this] { return where(); }, error_, [&](char c) -> bool {
    if (c == '\n') {
      if (line_ == 1 && text.compare(0, 3, "\xef\xbb\xbf") == 0) text.erase(0, 3);  // a byte-order mark
      if (!line(text)) return false;
      text.clear();
      ++line_;
      column = 0;
      return true;
    }
    if (text.size() == max_preamble_chars) {
      error_ = where() + ", column " + std::to_string(column) + ": a line longer than " +
               std::to_string(max_preamble_chars) + " characters";
      return false;
    }
    text += c;
    return true;
  });
  if (!read) return false;
  if (line_ == 1 && text.compare(0, 3, "\xef\xbb\xbf") == 0) text.erase(0, 3);
  if (!line(text)) return false;  // a last line without its newline
  if (sep_ == 0 && !pending_.empty()) {
    error_ = pending_ + " (and no header line names the X and Y columns)";
    return false;
  }
  points.columns = layout_.point_values;
  points_.move_to(points.values);
  points.source_lines = lines_;
  if (layout_.normals) {
    normals.columns = 3;
    normals_.move_to(normals.values);
    normals.source_lines = lines_;
  }
  return true;
}

}  // namespace

bool read_delimited(std::istream& in, std::string const& choice, int columns, int max_columns, PointTable& points,
                    PointTable& normals, std::string& error) {
  points = PointTable();
  normals = PointTable();
  bool ok = false;
  try {
    TableReader reader(choice, columns, max_columns, error);
    ok = reader.read(in, points, normals);
  } catch (std::bad_alloc const&) {
    error = "out of memory";
    ok = false;
  }
  if (!ok) {
    points = PointTable();
    normals = PointTable();
  }
  return ok;
}

}  // namespace gfit::cli
