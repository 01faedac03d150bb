// The export document: the Zel data one session sees, as versioned JSON.
//
// Its order is stable (objects by name, records by user and id, members by
// type and value, keys sorted), so two exports of the same data differ only
// in the top-level "exported" time and in the seals (a fresh nonce each).
// Passwords are left out, or carried only as seals under the operator's key
// (Zel_sealPassword), never in clear.
//
// Every text is carried byte for byte: one that is valid UTF-8 as a JSON
// string, any other as {"base64": "<its bytes>"}.  A NUL byte cannot be
// stored in the directory, so a document holding one is refused.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zelctl {

constexpr const char *kDocumentFormat = "zelmgmt-export";
// Raised only when the zelctl of the version before would misread a
// document: readers skip keys they do not know and take a missing list as
// empty, so a new list (serviceTypes) keeps the version, and older documents
// without it still import.
constexpr int kDocumentVersion = 1;

using Text = std::optional<std::string>;  // absent where the directory keeps no value
using Pairs = std::vector<std::pair<std::string, std::string>>;

// The storage form an object is kept in: 0 for the document's own
// ("storage" at the top), 1 for the first generation in a document of the
// security domain form, where the two live side by side.
constexpr int kDocumentForm = 0;
constexpr int kFirstGenerationForm = 1;

struct DocServiceType {
    std::string name;
    std::vector<std::string> identifiers;  // the names every service of the type carries
};

struct DocService {
    int storage = kDocumentForm;
    std::string name;
    Text type, description;
    Pairs identifiers;  // name, value
};

struct DocGroup {
    int storage = kDocumentForm;
    std::string name;
    Text description;
    Pairs members;  // type, value
};

struct DocUser {
    int storage = kDocumentForm;
    std::string name;
    Text type, description, person;
    bool enabled = true;
};

struct DocRecord {
    int storage = kDocumentForm;
    std::string user, id;
    Text service, type, account, description;
    Text password;  // a seal, only in documents with passwords "sealed"
};

struct Document {
    int storage = 2;                  // the API version of the session that wrote it
    std::string passwords = "omit";   // "omit" or "sealed"
    std::vector<DocServiceType> types;
    std::vector<DocService> services;
    std::vector<DocGroup> groups;
    std::vector<DocUser> users;
    std::vector<DocRecord> records;

    // Sorts every list into the document's stable order (by name, then by
    // form: a name kept in both forms is listed first-generation first).
    void sort();
};

// The document as JSON text with its "exported" time.
std::string document_text(const Document &doc, const std::string &exported);
// Reads a document; false with `error` saying what is wrong and where (never
// a value of a password field).  Nothing of a refused document is used.
bool read_document(const std::string &text, Document &doc, std::string &error);

}  // namespace zelctl
