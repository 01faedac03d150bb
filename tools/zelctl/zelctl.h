// Shared pieces of the zelctl command groups.
#pragma once

#include <zelmgmt.h>

#include <memory>
#include <string>
#include <vector>

namespace zelctl {

// Connection options, after OpenLDAP's own tools.
struct Options {
    std::string uri;          // -H; empty: the client's configured default server
    std::string bind_dn;      // -D
    std::string password;     // -w, -W (prompt) or -y file
    bool have_password = false;
    std::string domain = "Default";  // --domain
    uint32_t api_version = 2;        // --api-version
    bool json = false;               // --json
};

using Args = std::vector<std::string>;

// Opens a session as the options say; on failure prints the error and
// returns null.
ZelSession *open_session(const Options &opts);

struct SessionClose {
    void operator()(ZelSession *s) const { Zel_close(s, 1); }
};
using Session = std::unique_ptr<ZelSession, SessionClose>;

// "zelctl: <what>: <status text> (status N)" on standard error; returns 1.
int fail(const std::string &what, ZelRC rc);
// "zelctl: <message>" on standard error; returns 2 (usage errors).
int usage(const std::string &message);

// A JSON string literal.
std::string json_string(const char *text);

// Takes "--name VALUE" out of args; returns false when absent.  A flag
// without its value is reported through usage().
bool take_option(Args &args, const std::string &name, std::string &value);
bool take_flag(Args &args, const std::string &name);

// Command groups: each gets the arguments after its own name.
int run_info(const Options &opts, Args args);
int run_service(const Options &opts, Args args);
int run_service_type(const Options &opts, Args args);
int run_user(const Options &opts, Args args);

}  // namespace zelctl
