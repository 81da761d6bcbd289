// Reading measured points from a delimited table: CSV, TSV, `;`-separated files with decimal
// commas, or whitespace-separated columns, with or without a header line.
//
// The separator is the first of `;`, tab, `,` found on the first significant line (else runs of
// spaces). With `;` or tab a decimal comma is read as a point (`1,5;2,25;3`). Fields may be
// quoted and are trimmed of surrounding spaces; a line whose first character is `#` is a
// comment; blank lines are skipped.
//
// Columns are chosen by the header (names in any case: X, Y, Z; I, J, K or NX, NY, NZ for
// normals; R or RADIUS for a probe radius where the caller takes one; any other column, a point
// name or id, is ignored), or by `choice`: comma-separated header names or 1-based column
// numbers, the point's values first, then three normal columns if given. Without a header or a
// choice, the first row's field count decides: the point's values alone, or followed by three
// normal components. Lines before the header are skipped (a CMM export opens with a date
// line); when no header follows them they are reported as malformed.
//
// Streaming and strictness are those of read_points: until the first point, a line is held
// whole (at most max_preamble_chars); after it only the field being read, at most
// max_field_chars characters, is held. Every row must have as many fields as the header (or
// the first row); a NUL byte, an empty or non-numeric value in a used column, a missing column
// are refused with the line and the column. Normals are kept as written, not normalised.
#pragma once

#include <istream>
#include <string>

#include "tools/point_reader.h"

namespace gfit::cli {

// Longest line accepted before the first point (a date, a title, the header).
constexpr int max_preamble_chars = 1 << 16;

// `columns` and `max_columns` as for read_points. On success `normals` holds three values per
// point when the file carries normals, else no rows.
bool read_delimited(std::istream& in, std::string const& choice, int columns, int max_columns, PointTable& points,
                    PointTable& normals, std::string& error);

}  // namespace gfit::cli
