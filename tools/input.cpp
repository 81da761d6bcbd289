#include "tools/input.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <streambuf>
#include <utility>

#include "tools/ply_reader.h"
#include "tools/read_support.h"
#include "tools/table_reader.h"

namespace gfit::cli {

namespace {

// Serves the bytes already taken from a stream to decide its format, then the rest of it, so
// that standard input is read once and never needs to seek.
class PrefixedBuffer : public std::streambuf {
 public:
  PrefixedBuffer(std::string prefix, std::streambuf* rest)
      : prefix_(std::move(prefix)), rest_(rest), buffer_(new char[size]) {
    setg(prefix_.data(), prefix_.data(), prefix_.data() + prefix_.size());
  }

 protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    const std::streamsize n = rest_->sgetn(buffer_.get(), static_cast<std::streamsize>(size));
    if (n <= 0) return traits_type::eof();
    setg(buffer_.get(), buffer_.get(), buffer_.get() + n);
    return traits_type::to_int_type(*gptr());
  }

 private:
  static constexpr size_t size = 1 << 16;
  std::string prefix_;
  std::streambuf* rest_;
  std::unique_ptr<char[]> buffer_;
};

std::string lowercase(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool ends_with(std::string const& s, char const* tail) {
  const std::string t = tail;
  return s.size() >= t.size() && s.compare(s.size() - t.size(), t.size(), t) == 0;
}

// The format of a file that names none: PLY by its magic line or extension, a table by its
// extension, else by its first line that is neither blank nor a comment: plain numbers
// (separated by spaces or commas) are the plain text format, unless they are a point followed
// by its normal; anything else (a header, a date, `;`) is a table.
std::string detect(std::string const& path, std::string const& head, int columns, int max_columns) {
  const std::string name = lowercase(path);
  if (head.compare(0, 4, "ply\n") == 0 || head.compare(0, 5, "ply\r\n") == 0 || ends_with(name, ".ply")) return "ply";
  if (ends_with(name, ".csv") || ends_with(name, ".tsv")) return "csv";
  size_t start = 0;
  while (start < head.size()) {
    size_t end = head.find('\n', start);
    const bool complete = end != std::string::npos;
    if (!complete) end = head.size();
    std::string line = head.substr(start, end - start);
    start = end + 1;
    size_t first = line.find_first_not_of(" \t\r\v\f,");
    if (first == std::string::npos || line[first] == '#') continue;
    if (line.find(';') != std::string::npos) return "csv";
    line = line.substr(0, line.find('#'));
    int count = 0;
    size_t i = 0;
    for (;;) {
      i = line.find_first_not_of(" \t\r\v\f,", i);
      if (i == std::string::npos) break;
      size_t j = std::min(line.find_first_of(" \t\r\v\f,", i), line.size());
      double v = 0.0;
      if (j - i > static_cast<size_t>(max_field_chars)) return "text";  // refused there, with its column
      std::string token = line.substr(i, j - i);
      if (!detail::parse_number(token.c_str(), static_cast<int>(token.size()), v)) return "csv";
      ++count;
      i = j;
    }
    const int lowest = columns == 0 ? 2 : columns;
    const int highest = columns == 0 ? 3 : (max_columns > columns ? max_columns : columns);
    if (count > highest && count - 3 >= lowest && count - 3 <= highest) return "csv";  // with normals
    return "text";
  }
  return "text";
}

}  // namespace

bool read_input(std::string const& path, InputOptions const& options, int columns, int max_columns, Input& input,
                std::string& error) {
  input.source = path == "-" ? "standard input" : path;
  input.points = PointTable{};
  input.normals = PointTable{};
  std::string format = lowercase(options.format);
  if (format == "tsv") format = "csv";
  if (format != "auto" && format != "text" && format != "csv" && format != "ply") {
    error = "unknown format '" + options.format + "' (auto, text, csv or ply)";
    return false;
  }
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file) {
      error = "cannot read " + path;
      return false;
    }
  }
  std::istream& source = path == "-" ? std::cin : file;
  // The first bytes decide the format; they are then read again through the prefixed buffer.
  std::string head(1 << 16, '\0');
  source.read(&head[0], static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<size_t>(source.gcount() > 0 ? source.gcount() : 0));
  if (source.bad()) {
    error = input.source + ": read error";
    return false;
  }
  if (format == "auto") format = detect(path, head, columns, max_columns);
  if (format == "text" && !options.columns.empty()) format = "csv";
  PrefixedBuffer buffer(std::move(head), source.rdbuf());
  std::istream in(&buffer);
  bool ok = false;
  if (format == "ply") {
    if (!options.columns.empty())
      error = "--columns applies to text tables; a PLY file's columns are its vertex properties";
    else
      ok = read_ply(in, columns, max_columns, input.points, input.normals, error);
  } else if (format == "csv") {
    ok = read_delimited(in, options.columns, columns, max_columns, input.points, input.normals, error);
  } else {
    ok = read_points(in, columns, input.points, error, max_columns);
  }
  if (!ok) {
    input.points = PointTable{};
    input.normals = PointTable{};
    error = input.source + ", " + error;
    return false;
  }
  return true;
}

}  // namespace gfit::cli
