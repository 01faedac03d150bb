// The import's readers of outside files: an export document (JSON) and a
// records spreadsheet (CSV).  Neither may crash or read out of bounds; a
// document read is written back and read again to the same document, byte
// for byte, whatever its texts hold.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "csv.h"
#include "document.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    for (const zelctl::CsvRow &row : zelctl::read_csv(text))
        if (row.line < 1 || (row.fields.empty() && row.error.empty())) abort();

    zelctl::Document doc;
    std::string error;
    if (!zelctl::read_document(text, doc, error)) {
        if (error.empty()) abort();
        return 0;
    }
    doc.sort();
    const std::string once = zelctl::document_text(doc, "t");
    zelctl::Document back;
    if (!zelctl::read_document(once, back, error)) abort();
    if (zelctl::document_text(back, "t") != once) abort();
    return 0;
}
