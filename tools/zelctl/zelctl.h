// Shared pieces of the zelctl command groups.
#pragma once

#include <zelmgmt.h>

#include <cstdint>
#include <initializer_list>
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
    bool api_version_given = false;  // commands of one storage form choose theirs otherwise
    bool json = false;               // --json
    bool dry_run = false;            // --dry-run after a command that writes (dry_run.h)
    std::string ca_file;             // --ca: CA certificates for ldaps:// and StartTLS
    bool starttls = false;           // -Z, -ZZ: ldap:// servers upgraded with StartTLS
    int32_t timeout = -1;            // --timeout: seconds per request; -1: the library's choice
    int32_t network_timeout = -1;    // --network-timeout: seconds to connect
};

constexpr uint32_t kMaxTimeoutSeconds = 1000000;

using Args = std::vector<std::string>;

// What the command line says up to the command.
struct CommandLine {
    Options opts;
    Args rest;                   // the command and its arguments
    bool help = false;           // -h, --help
    bool version = false;        // --version
    bool prompt = false;         // -W: ask on the terminal once parsing is done
    std::string password_file;   // -y: read once parsing is done
};

// Reads the options before the command.  -w's value is copied and then
// overwritten in argv, so that it does not stay visible in ps.  False on a
// usage error, with `error` naming the option, never its value.
bool parse_command_line(int argc, char **argv, CommandLine &line, std::string &error);

// Decimal digits only, nothing else, at most `max`: the one way every numeric
// option is read, so that no value wraps or is cut short silently.
bool parse_number(const std::string &text, uint32_t max, uint32_t &value);

// ldap://HOST[:PORT] or ldaps://HOST[:PORT] (IPv6 hosts in brackets); port 0
// when none is given.  -H takes one or several, separated by blanks.
bool parse_uri(const std::string &uri, std::string &host, uint16_t &port, bool &ssl);

// Anything handed out with a release call of its own (a library record, an
// LDAP message), released with it.
template <class T, auto Release>
struct LibraryFree {
    void operator()(T *p) const { Release(p); }
};
template <class T, auto Release>
using Held = std::unique_ptr<T, LibraryFree<T, Release>>;

inline void close_session(ZelSession *s) { Zel_close(s, 1); }
using Session = Held<ZelSession, close_session>;

// Opens a session as the options say; on failure prints the error and
// returns null.  Every command that talks to the directory opens it here.
Session open_session(const Options &opts);

// "zelctl: <what>: <status text> (status N)" on standard error; returns 1.
int fail(const std::string &what, ZelRC rc);
// The same with the detail given rather than the library's last one.
int fail(const std::string &what, ZelRC rc, const char *detail);
// "zelctl: <message>" on standard error; returns 2 (usage errors).
int usage(const std::string &message);

// A text the library handed out, "" where there is none.
inline const char *or_empty(const char *text) { return text ? text : ""; }

// "orv", "netscape", ... "active-directory": the directory kind as zelctl names it.
const char *directory_kind_name(int32_t kind);

// Takes "--name VALUE" or "--name=VALUE" out of args; returns false when absent.  A flag
// without its value is reported through usage().
bool take_option(Args &args, const std::string &name, std::string &value);
bool take_flag(Args &args, const std::string &name);

// The helpers every command group uses.  Each returns false after printing a
// usage error, with the exit status in `status`.
//
// "--name VALUE"; `given` says whether it was on the line.  A flag without
// its value is a usage error.
bool take_value(Args &args, const std::string &name, std::string &value, bool &given, int &status);
// Every "--name VALUE", in order.
std::vector<std::string> take_all(Args &args, const std::string &name);
// What is left must be exactly the operands `names` lists (e.g. {"USER", "ID"});
// a dangling or unknown option is a usage error.
bool take_operands(const Args &args, const std::string &command, std::initializer_list<const char *> names,
                   std::vector<std::string> &out, int &status);
// "<what> NAME <verb>", or {"<key>":"NAME","<verb>":true} with --json; returns 0.
int report_done(const Options &opts, const char *what, const char *key, const std::string &name, const char *verb);

// Secrets never come from the command line.  Each strips one trailing newline
// and answers false when nothing could be read.
bool read_secret_file(const std::string &path, std::string &out);
bool read_secret_stdin(std::string &out);
// Prompts on the terminal with echo off.
bool prompt_secret(const char *prompt, std::string &out);
// Overwrites a secret before its memory is given back.
void forget_secret(std::string &secret);

// Command groups: each gets the arguments after its own name.
int run_info(const Options &opts, Args args);
int run_service(const Options &opts, Args args);
int run_service_type(const Options &opts, Args args);
int run_user(const Options &opts, Args args);
int run_domain(const Options &opts, Args args);
int run_record(const Options &opts, Args args);
int run_credential(const Options &opts, Args args);
// Database provisioning.
int run_db(const Options &opts, Args args);
int run_person(const Options &opts, Args args);
// Who can read the stored passwords, and the rest of a deployment's health.
int run_doctor(const Options &opts, Args args);

// The operator's key file, and stored passwords rewritten under its active key.
int run_key(const Options &opts, Args args);
int run_record_rekey(const Options &opts, Args args);

// The chain of a ZEL_AUDIT trail file.
int run_audit(const Options &opts, Args args);
// Moving the Zel data out of a directory and back in (document.h).
int run_export(const Options &opts, Args args);
int run_import(const Options &opts, Args args);
int run_record_import_csv(const Options &opts, Args args);

}  // namespace zelctl
