#include "tools/read_support.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <system_error>

namespace gfit::cli::detail {

void BlockStore::move_to(std::vector<double>& out) {
  out.clear();
  out.reserve(total_);
  size_t left = total_;
  for (size_t b = 0; b < blocks_.size(); ++b) {
    size_t n = left < block_size(b) ? left : block_size(b);
    out.insert(out.end(), blocks_[b].get(), blocks_[b].get() + n);
    left -= n;
    blocks_[b].reset();
  }
  blocks_.clear();
  capacity_ = used_ = total_ = 0;
}

void BlockStore::grow() {
  capacity_ = block_size(blocks_.size());
  blocks_.emplace_back(new double[capacity_]);
  used_ = 0;
}

bool parse_number(char const* text, int n, double& value) {
  if (n <= 0) return false;
  double v = 0.0;
  char const* end = text + n;
  auto parsed = std::from_chars(text, end, v);
  if (parsed.ec != std::errc() || parsed.ptr != end) {
    char* stop = nullptr;
    errno = 0;
    v = std::strtod(text, &stop);
    if (stop != end) return false;
  }
  if (!std::isfinite(v)) return false;
  value = v;
  return true;
}

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

}  // namespace gfit::cli::detail
