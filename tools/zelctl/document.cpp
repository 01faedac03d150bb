// Reading and writing the export document.
#include "document.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

namespace zelctl {
namespace {

using nlohmann::json;

void put(json &j, const char *key, const Text &value) {
    if (value) j[key] = *value;
}

json pairs_json(const Pairs &pairs, const char *first, const char *second) {
    json out = json::array();
    for (const auto &[a, b] : pairs) out.push_back({{first, a}, {second, b}});
    return out;
}

// Reading: every field is checked for its JSON type, so that a damaged or
// foreign file is refused with the path of the first wrong field.
struct Reader {
    std::string error;

    bool fail(const std::string &where, const char *what) {
        if (error.empty()) error = where + ": " + what;
        return false;
    }
    bool text(const json &j, const char *key, const std::string &where, std::string &out) {
        auto it = j.find(key);
        if (it == j.end() || !it->is_string()) return fail(where + "." + key, "a text is needed");
        out = it->get<std::string>();
        return true;
    }
    bool optional_text(const json &j, const char *key, const std::string &where, Text &out) {
        auto it = j.find(key);
        if (it == j.end() || it->is_null()) return true;
        if (!it->is_string()) return fail(where + "." + key, "a text is needed");
        out = it->get<std::string>();
        return true;
    }
    bool texts(const json &j, const char *key, const std::string &where, std::vector<std::string> &out) {
        auto it = j.find(key);
        if (it == j.end()) return true;
        if (!it->is_array()) return fail(where + "." + key, "a list is needed");
        for (size_t i = 0; i < it->size(); ++i) {
            if (!(*it)[i].is_string())
                return fail(where + "." + key + "[" + std::to_string(i) + "]", "a text is needed");
            out.push_back((*it)[i].get<std::string>());
        }
        return true;
    }
    bool pairs(const json &j, const char *key, const char *first, const char *second, const std::string &where,
               Pairs &out) {
        auto it = j.find(key);
        if (it == j.end()) return true;
        if (!it->is_array()) return fail(where + "." + key, "a list is needed");
        for (size_t i = 0; i < it->size(); ++i) {
            const json &p = (*it)[i];
            std::string at = where + "." + key + "[" + std::to_string(i) + "]", a, b;
            if (!p.is_object() || !text(p, first, at, a) || !text(p, second, at, b)) return fail(at, "malformed");
            out.emplace_back(a, b);
        }
        return true;
    }
    template <class T, class Fn>
    bool list(const json &doc, const char *key, std::vector<T> &out, Fn &&one) {
        auto it = doc.find(key);
        if (it == doc.end()) return true;
        if (!it->is_array()) return fail(key, "a list is needed");
        for (size_t i = 0; i < it->size(); ++i) {
            const json &j = (*it)[i];
            std::string at = std::string(key) + "[" + std::to_string(i) + "]";
            if (!j.is_object()) return fail(at, "an object is needed");
            T item;
            if (!one(j, at, item)) return false;
            out.push_back(std::move(item));
        }
        return true;
    }
};

}  // namespace

void Document::sort() {
    auto by_name = [](const auto &a, const auto &b) { return a.name < b.name; };
    std::sort(types.begin(), types.end(), by_name);
    std::sort(services.begin(), services.end(), by_name);
    std::sort(groups.begin(), groups.end(), by_name);
    std::sort(users.begin(), users.end(), by_name);
    std::sort(records.begin(), records.end(),
              [](const DocRecord &a, const DocRecord &b) { return std::tie(a.user, a.id) < std::tie(b.user, b.id); });
    for (DocServiceType &t : types) std::sort(t.identifiers.begin(), t.identifiers.end());
    for (DocService &s : services) std::sort(s.identifiers.begin(), s.identifiers.end());
    for (DocGroup &g : groups) std::sort(g.members.begin(), g.members.end());
}

std::string document_text(const Document &doc, const std::string &exported) {
    json out = {{"format", kDocumentFormat}, {"version", kDocumentVersion}, {"exported", exported},
                {"storage", doc.storage}, {"passwords", doc.passwords}};
    json types = json::array(), services = json::array(), groups = json::array(), users = json::array(),
         records = json::array();
    for (const DocServiceType &t : doc.types) types.push_back({{"name", t.name}, {"identifiers", t.identifiers}});
    for (const DocService &s : doc.services) {
        json j = {{"name", s.name}, {"identifiers", pairs_json(s.identifiers, "name", "value")}};
        put(j, "type", s.type);
        put(j, "description", s.description);
        services.push_back(std::move(j));
    }
    for (const DocGroup &g : doc.groups) {
        json j = {{"name", g.name}, {"members", pairs_json(g.members, "type", "value")}};
        put(j, "description", g.description);
        groups.push_back(std::move(j));
    }
    for (const DocUser &u : doc.users) {
        json j = {{"name", u.name}, {"enabled", u.enabled}};
        put(j, "type", u.type);
        put(j, "description", u.description);
        put(j, "person", u.person);
        users.push_back(std::move(j));
    }
    for (const DocRecord &r : doc.records) {
        json j = {{"user", r.user}, {"id", r.id}};
        put(j, "service", r.service);
        put(j, "type", r.type);
        put(j, "account", r.account);
        put(j, "description", r.description);
        put(j, "password", r.password);
        records.push_back(std::move(j));
    }
    out["serviceTypes"] = std::move(types);
    out["services"] = std::move(services);
    out["resourceGroups"] = std::move(groups);
    out["users"] = std::move(users);
    out["records"] = std::move(records);
    return out.dump(2) + "\n";
}

bool read_document(const std::string &text, Document &doc, std::string &error) {
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        error = "not a JSON document";
        return false;
    }
    Reader r;
    std::string format;
    auto version = j.find("version");
    if (!r.text(j, "format", "document", format) || format != kDocumentFormat) {
        error = "not a zelmgmt export (no \"format\": \"" + std::string(kDocumentFormat) + "\")";
        return false;
    }
    if (version == j.end() || !version->is_number_integer() || version->get<int>() != kDocumentVersion) {
        error = "an export of another version than " + std::to_string(kDocumentVersion);
        return false;
    }
    auto storage = j.find("storage");
    if (storage != j.end()) {
        if (!storage->is_number_integer() || storage->get<int>() < 0 || storage->get<int>() > 2) {
            error = "storage: 0, 1 or 2 is needed";
            return false;
        }
        doc.storage = storage->get<int>();
    }
    Text passwords;
    if (!r.optional_text(j, "passwords", "document", passwords) ||
        (passwords && *passwords != "omit" && *passwords != "sealed")) {
        error = "passwords: \"omit\" or \"sealed\" is needed";
        return false;
    }
    doc.passwords = passwords.value_or("omit");
    bool ok =
        r.list(j, "serviceTypes", doc.types,
               [&](const json &o, const std::string &at, DocServiceType &t) {
                   return r.text(o, "name", at, t.name) && r.texts(o, "identifiers", at, t.identifiers);
               }) &&
        r.list(j, "services", doc.services,
               [&](const json &o, const std::string &at, DocService &s) {
                   return r.text(o, "name", at, s.name) && r.optional_text(o, "type", at, s.type) &&
                          r.optional_text(o, "description", at, s.description) &&
                          r.pairs(o, "identifiers", "name", "value", at, s.identifiers);
               }) &&
        r.list(j, "resourceGroups", doc.groups,
               [&](const json &o, const std::string &at, DocGroup &g) {
                   return r.text(o, "name", at, g.name) && r.optional_text(o, "description", at, g.description) &&
                          r.pairs(o, "members", "type", "value", at, g.members);
               }) &&
        r.list(j, "users", doc.users,
               [&](const json &o, const std::string &at, DocUser &u) {
                   auto enabled = o.find("enabled");
                   if (enabled != o.end() && !enabled->is_boolean()) return r.fail(at + ".enabled", "true or false");
                   u.enabled = enabled == o.end() || enabled->get<bool>();
                   return r.text(o, "name", at, u.name) && r.optional_text(o, "type", at, u.type) &&
                          r.optional_text(o, "description", at, u.description) &&
                          r.optional_text(o, "person", at, u.person);
               }) &&
        r.list(j, "records", doc.records, [&](const json &o, const std::string &at, DocRecord &rec) {
            return r.text(o, "user", at, rec.user) && r.text(o, "id", at, rec.id) &&
                   r.optional_text(o, "service", at, rec.service) && r.optional_text(o, "type", at, rec.type) &&
                   r.optional_text(o, "account", at, rec.account) &&
                   r.optional_text(o, "description", at, rec.description) &&
                   r.optional_text(o, "password", at, rec.password);
        });
    if (!ok) {
        error = r.error;
        return false;
    }
    return true;
}

}  // namespace zelctl
