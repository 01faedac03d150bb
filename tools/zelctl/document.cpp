// Reading and writing the export document.
#include "document.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <tuple>

#include "utf8_sequence.h"

namespace zelctl {
namespace {

using nlohmann::json;

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Well-formed UTF-8 is what JSON text must be.
bool valid_utf8(std::string_view text) {
    uint32_t code = 0;
    for (size_t length; !text.empty(); text.remove_prefix(length))
        if ((length = utf8_sequence(text, code)) == 0) return false;
    return true;
}

std::string base64_encode(const std::string &bytes) {
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
        for (int shift : {18, 12, 6, 0}) out += kBase64[(v >> shift) & 63];
    }
    if (size_t rest = bytes.size() - i) {
        uint32_t v = uint8_t(bytes[i]) << 16 | (rest == 2 ? uint8_t(bytes[i + 1]) << 8 : 0);
        out += kBase64[v >> 18];
        out += kBase64[(v >> 12) & 63];
        out += rest == 2 ? kBase64[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

// Strict: padded, canonical, nothing else in the text.
bool base64_decode(const std::string &text, std::string &out) {
    if (text.size() % 4 != 0) return false;
    out.clear();
    for (size_t i = 0; i < text.size(); i += 4) {
        uint32_t v = 0;
        int pad = 0;
        for (size_t k = 0; k < 4; ++k) {
            char c = text[i + k];
            const char *at = c ? std::char_traits<char>::find(kBase64, 64, c) : nullptr;
            bool last = i + 4 == text.size();
            if (c == '=' && last && k >= 2 && (k == 3 || text[i + 3] == '=')) {
                ++pad;
                v <<= 6;
                continue;
            }
            if (at == nullptr || pad) return false;
            v = (v << 6) | static_cast<uint32_t>(at - kBase64);
        }
        if ((pad == 1 && (v & 0xFF)) || (pad == 2 && (v & 0xFFFF))) return false;  // not canonical
        out += static_cast<char>(v >> 16);
        if (pad < 2) out += static_cast<char>((v >> 8) & 0xFF);
        if (pad < 1) out += static_cast<char>(v & 0xFF);
    }
    return true;
}

// A text as the document carries it: a JSON string when it is UTF-8, its
// bytes in base64 otherwise.
json text_json(const std::string &text) {
    if (valid_utf8(text)) return text;
    return {{"base64", base64_encode(text)}};
}

void put(json &j, const char *key, const Text &value) {
    if (value) j[key] = text_json(*value);
}

void put_form(json &j, int storage) {
    if (storage != kDocumentForm) j["storage"] = storage;
}

json pairs_json(const Pairs &pairs, const char *first, const char *second) {
    json out = json::array();
    for (const auto &[a, b] : pairs) out.push_back({{first, text_json(a)}, {second, text_json(b)}});
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
    // A string, or {"base64": "..."} for bytes that are not UTF-8; either
    // way without a NUL, which the directory cannot keep.
    bool value(const json &v, const std::string &where, std::string &out) {
        if (v.is_string()) {
            out = v.get<std::string>();
        } else {
            auto b64 = v.is_object() && v.size() == 1 ? v.find("base64") : v.end();
            if (b64 == v.end() || !b64->is_string())
                return fail(where, "a text (or {\"base64\": \"...\"}) is needed");
            if (!base64_decode(b64->get<std::string>(), out)) return fail(where, "not valid base64");
        }
        if (out.find('\0') != std::string::npos) return fail(where, "a NUL byte cannot be stored");
        return true;
    }
    bool text(const json &j, const char *key, const std::string &where, std::string &out) {
        auto it = j.find(key);
        if (it == j.end()) return fail(where + "." + key, "a text is needed");
        return value(*it, where + "." + key, out);
    }
    bool optional_text(const json &j, const char *key, const std::string &where, Text &out) {
        auto it = j.find(key);
        if (it == j.end() || it->is_null()) return true;
        std::string v;
        if (!value(*it, where + "." + key, v)) return false;
        out = std::move(v);
        return true;
    }
    bool texts(const json &j, const char *key, const std::string &where, std::vector<std::string> &out) {
        auto it = j.find(key);
        if (it == j.end()) return true;
        if (!it->is_array()) return fail(where + "." + key, "a list is needed");
        for (size_t i = 0; i < it->size(); ++i) {
            std::string v;
            if (!value((*it)[i], where + "." + key + "[" + std::to_string(i) + "]", v)) return false;
            out.push_back(std::move(v));
        }
        return true;
    }
    // The object's storage form: absent for the document's own, else 1 or 2.
    bool form(const json &j, const std::string &where, int &out) {
        auto it = j.find("storage");
        if (it == j.end()) return true;
        if (!it->is_number_integer() || (it->get<int64_t>() != 1 && it->get<int64_t>() != 2))
            return fail(where + ".storage", "1 or 2 is needed");
        out = static_cast<int>(it->get<int64_t>());
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
            if (!p.is_object()) return fail(at, "an object is needed");
            if (!text(p, first, at, a) || !text(p, second, at, b)) return false;
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
    auto by_name_form = [](const auto &a, const auto &b) {
        return std::tie(a.name, b.storage) < std::tie(b.name, a.storage);
    };
    std::sort(types.begin(), types.end(), by_name);
    std::sort(services.begin(), services.end(), by_name_form);
    std::sort(groups.begin(), groups.end(), by_name_form);
    std::sort(users.begin(), users.end(), by_name_form);
    std::sort(records.begin(), records.end(), [](const DocRecord &a, const DocRecord &b) {
        return std::tie(a.user, a.id, b.storage) < std::tie(b.user, b.id, a.storage);
    });
    for (DocServiceType &t : types) std::sort(t.identifiers.begin(), t.identifiers.end());
    for (DocService &s : services) std::sort(s.identifiers.begin(), s.identifiers.end());
    for (DocGroup &g : groups) std::sort(g.members.begin(), g.members.end());
}

std::string document_text(const Document &doc, const std::string &exported) {
    json out = {{"format", kDocumentFormat}, {"version", kDocumentVersion}, {"exported", exported},
                {"storage", doc.storage}, {"passwords", doc.passwords}};
    json types = json::array(), services = json::array(), groups = json::array(), users = json::array(),
         records = json::array();
    for (const DocServiceType &t : doc.types) {
        json ids = json::array();
        for (const std::string &id : t.identifiers) ids.push_back(text_json(id));
        types.push_back({{"name", text_json(t.name)}, {"identifiers", std::move(ids)}});
    }
    for (const DocService &s : doc.services) {
        json j = {{"name", text_json(s.name)}, {"identifiers", pairs_json(s.identifiers, "name", "value")}};
        put_form(j, s.storage);
        put(j, "type", s.type);
        put(j, "description", s.description);
        services.push_back(std::move(j));
    }
    for (const DocGroup &g : doc.groups) {
        json j = {{"name", text_json(g.name)}, {"members", pairs_json(g.members, "type", "value")}};
        put_form(j, g.storage);
        put(j, "description", g.description);
        groups.push_back(std::move(j));
    }
    for (const DocUser &u : doc.users) {
        json j = {{"name", text_json(u.name)}, {"enabled", u.enabled}};
        put_form(j, u.storage);
        put(j, "type", u.type);
        put(j, "description", u.description);
        put(j, "person", u.person);
        users.push_back(std::move(j));
    }
    for (const DocRecord &r : doc.records) {
        json j = {{"user", text_json(r.user)}, {"id", text_json(r.id)}};
        put_form(j, r.storage);
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
    // Compared as the number it is: a large one must not wrap to a known one.
    if (version == j.end() || !version->is_number_integer() || version->get<int64_t>() != kDocumentVersion ||
        (version->is_number_unsigned() && version->get<uint64_t>() != kDocumentVersion)) {
        error = "an export of another version than " + std::to_string(kDocumentVersion);
        return false;
    }
    auto storage = j.find("storage");
    if (storage != j.end()) {
        if (!storage->is_number_integer() || storage->get<int64_t>() < 0 || storage->get<int64_t>() > 2 ||
            (storage->is_number_unsigned() && storage->get<uint64_t>() > 2)) {
            error = "storage: 0, 1 or 2 is needed";
            return false;
        }
        doc.storage = static_cast<int>(storage->get<int64_t>());
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
                   return r.form(o, at, s.storage) && r.text(o, "name", at, s.name) &&
                          r.optional_text(o, "type", at, s.type) &&
                          r.optional_text(o, "description", at, s.description) &&
                          r.pairs(o, "identifiers", "name", "value", at, s.identifiers);
               }) &&
        r.list(j, "resourceGroups", doc.groups,
               [&](const json &o, const std::string &at, DocGroup &g) {
                   return r.form(o, at, g.storage) && r.text(o, "name", at, g.name) &&
                          r.optional_text(o, "description", at, g.description) &&
                          r.pairs(o, "members", "type", "value", at, g.members);
               }) &&
        r.list(j, "users", doc.users,
               [&](const json &o, const std::string &at, DocUser &u) {
                   auto enabled = o.find("enabled");
                   if (enabled != o.end() && !enabled->is_boolean()) return r.fail(at + ".enabled", "true or false");
                   u.enabled = enabled == o.end() || enabled->get<bool>();
                   return r.form(o, at, u.storage) && r.text(o, "name", at, u.name) &&
                          r.optional_text(o, "type", at, u.type) &&
                          r.optional_text(o, "description", at, u.description) &&
                          r.optional_text(o, "person", at, u.person);
               }) &&
        r.list(j, "records", doc.records, [&](const json &o, const std::string &at, DocRecord &rec) {
            return r.form(o, at, rec.storage) && r.text(o, "user", at, rec.user) && r.text(o, "id", at, rec.id) &&
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
