// The export document: the Zel data one session sees, as versioned JSON.
//
// Its order is stable (objects by name, records by user and id, members by
// type and value, keys sorted), so two exports of the same data differ only
// in the top-level "exported" time and in the seals (a fresh nonce each).
// Passwords are left out, or carried only as seals under the operator's key
// (Zel_sealPassword), never in clear.
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

struct DocServiceType {
    std::string name;
    std::vector<std::string> identifiers;  // the names every service of the type carries
};

struct DocService {
    std::string name;
    Text type, description;
    Pairs identifiers;  // name, value
};

struct DocGroup {
    std::string name;
    Text description;
    Pairs members;  // type, value
};

struct DocUser {
    std::string name;
    Text type, description, person;
    bool enabled = true;
};

struct DocRecord {
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

    // Sorts every list into the document's stable order.
    void sort();
};

// The document as JSON text with its "exported" time.
std::string document_text(const Document &doc, const std::string &exported);
// Reads a document; false with `error` saying what is wrong (never a value
// of a password field).
bool read_document(const std::string &text, Document &doc, std::string &error);

}  // namespace zelctl
