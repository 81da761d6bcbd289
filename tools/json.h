// A minimal JSON object writer for the command-line results: numbers in the shortest form
// that reads back to the same double; non-finite numbers as null.
#pragma once

#include <charconv>
#include <cmath>
#include <initializer_list>
#include <string>
#include <vector>

namespace gfit::cli {

class JsonObject {
 public:
  JsonObject& add(std::string const& key, std::string const& text) {
    key_(key);
    out_ += '"';
    for (char c : text) {
      if (c == '"' || c == '\\') out_ += '\\';
      out_ += c;
    }
    out_ += '"';
    return *this;
  }
  JsonObject& add(std::string const& key, char const* text) { return add(key, std::string(text)); }
  JsonObject& add(std::string const& key, int v) {
    key_(key);
    out_ += std::to_string(v);
    return *this;
  }
  JsonObject& add(std::string const& key, double v) {
    key_(key);
    number(v);
    return *this;
  }
  JsonObject& add(std::string const& key, std::initializer_list<double> values) {
    return add(key, std::vector<double>(values));
  }
  JsonObject& add(std::string const& key, std::vector<double> const& values) {
    key_(key);
    array(values);
    return *this;
  }
  // An array of arrays of numbers, such as a list of points.
  JsonObject& add(std::string const& key, std::vector<std::vector<double>> const& rows) {
    key_(key);
    out_ += '[';
    for (size_t i = 0; i < rows.size(); ++i) {
      if (i) out_ += ", ";
      array(rows[i]);
    }
    out_ += ']';
    return *this;
  }
  std::string str() const { return out_ + "}"; }

 private:
  void key_(std::string const& key) {
    out_ += out_.size() > 1 ? ", \"" : "\"";
    out_ += key;
    out_ += "\": ";
  }
  void array(std::vector<double> const& values) {
    out_ += '[';
    for (size_t i = 0; i < values.size(); ++i) {
      if (i) out_ += ", ";
      number(values[i]);
    }
    out_ += ']';
  }
  void number(double v) {
    if (!std::isfinite(v)) {
      out_ += "null";
      return;
    }
    char buffer[32];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    out_.append(buffer, result.ptr);
  }
  std::string out_ = "{";
};

}  // namespace gfit::cli
