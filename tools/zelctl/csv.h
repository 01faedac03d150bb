// Comma-separated rows as RFC 4180 writes them: fields may be quoted with
// '"', a quoted field may hold commas, line breaks and doubled quotes, and
// lines end in CRLF or LF.
#pragma once

#include <string>
#include <vector>

namespace zelctl {

struct CsvRow {
    int line = 0;                  // where the row starts, from 1
    std::vector<std::string> fields;
    std::string error;             // non-empty: the row is malformed and says why
};

// Splits the whole text into rows; a malformed row is returned with its
// error and reading goes on at the next line.  Empty lines are skipped.
std::vector<CsvRow> read_csv(const std::string &text);

}  // namespace zelctl
