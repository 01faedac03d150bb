#include "csv.h"

namespace zelctl {

std::vector<CsvRow> read_csv(const std::string &text) {
    std::vector<CsvRow> rows;
    size_t i = 0, n = text.size();
    int line = 1;
    while (i < n) {
        CsvRow row;
        row.line = line;
        std::string field;
        bool quoted = false, after_quote = false, row_done = false;
        while (!row_done) {
            if (i >= n) {
                if (quoted) row.error = "a quoted field is not closed";
                row.fields.push_back(field);
                break;
            }
            char c = text[i++];
            if (quoted) {
                if (c == '"' && i < n && text[i] == '"') {
                    field += '"';
                    ++i;
                } else if (c == '"') {
                    quoted = false;
                    after_quote = true;
                } else {
                    if (c == '\n') ++line;
                    field += c;
                }
                continue;
            }
            if (c == ',') {
                row.fields.push_back(field);
                field.clear();
                after_quote = false;
            } else if (c == '\n' || (c == '\r' && i < n && text[i] == '\n')) {
                if (c == '\r') ++i;
                ++line;
                row.fields.push_back(field);
                row_done = true;
            } else if (c == '"' && field.empty() && !after_quote) {
                quoted = true;
            } else if (after_quote || c == '"') {
                // Text after a closing quote, or a quote inside an unquoted field.
                if (row.error.empty()) row.error = "a quote in the wrong place";
                field += c;
            } else {
                field += c;
            }
        }
        bool blank = row.fields.size() == 1 && row.fields[0].empty() && row.error.empty();
        if (!blank) rows.push_back(std::move(row));
    }
    return rows;
}

}  // namespace zelctl
