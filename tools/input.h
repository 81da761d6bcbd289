// Reading a measured point file in any of the formats the command line accepts.
//
// This is the one entry the commands use; the format-specific readers sit behind it:
//   text  `x y z` per line, spaces or commas, `#` comments (read_points);
//   csv   delimited tables, with or without a header, `;` with decimal commas, TSV
//         (read_delimited), the points' normals from the same rows;
//   ply   ASCII or binary PLY vertices, with nx, ny, nz as normals (read_ply).
// With format "auto" the format is the file's: PLY by its `ply` line or its extension, a table
// by a .csv/.tsv extension, else by the first line that is not blank or a comment: numbers
// alone are plain text (a table if they are a point followed by its three normal components),
// anything else (a header, a date line, `;` separators) a table. The bytes looked at are read
// once and served again to the reader, so standard input works as a file does. Choosing
// `columns` reads the file as a table.
#pragma once

#include <string>

#include "tools/point_reader.h"

namespace gfit::cli {

struct InputOptions {
  std::string format = "auto";  // auto | text | csv (tsv) | ply (--format); auto: by extension and content
  std::string columns;          // --columns: names or 1-based numbers, e.g. "X,Y,Z" or "2,3,4,5,6,7"
};

struct Input {
  PointTable points;   // the coordinates of each point (and any further value per point, e.g. a probe radius)
  PointTable normals;  // one unit normal per point (3 columns) when the file carries them; else empty
  std::string source;  // the path, or "standard input", for messages
};

// Reads `path` ('-': standard input). `columns` and `max_columns` say how many values a point
// has, as for read_points. On failure returns false with a message naming the line and column.
bool read_input(std::string const& path, InputOptions const& options, int columns, int max_columns, Input& input,
                std::string& error);

}  // namespace gfit::cli
