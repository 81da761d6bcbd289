// Reading measured points from a PLY file (Turk's polygon file format), as scanners and
// point-cloud tools write it: ASCII, binary little endian or binary big endian.
//
// The points are the `vertex` element's `x`, `y`, `z` properties; `nx`, `ny`, `nz`, when all
// three are present, are the normals. Any scalar type is read (char … double, or their
// int8 … float64 names); every other property, list properties included, and every element
// before the vertices are skipped by their types' sizes; elements after the vertices are not
// read.
//
// Streaming and strictness: the header is read line by line (at most max_ply_header_line
// characters each, max_ply_header_lines lines); the vertices are read a record at a time into
// blocks that grow only with what has been read, so a header promising more vertices than the
// file holds never allocates for them: it is refused once the data run out, naming the vertex.
// A NUL byte in an ASCII file, a malformed or non-finite value, an unknown property type or
// keyword are refused with the line (and, for values, the column) they are on.
#pragma once

#include <istream>
#include <string>

#include "tools/point_reader.h"

namespace gfit::cli {

constexpr int max_ply_header_line = 4096;
constexpr int max_ply_header_lines = 10000;

// `columns` and `max_columns` as for read_points: a vertex gives 3 values, so an element that
// takes exactly 2 is refused. On success `normals` holds three values per point when the
// vertices carry nx, ny, nz, else no rows. Point i's source line is its line in an ASCII file
// and its vertex number (from 1) in a binary one.
bool read_ply(std::istream& in, int columns, int max_columns, PointTable& points, PointTable& normals,
              std::string& error);

}  // namespace gfit::cli
