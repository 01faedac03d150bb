// zelctl: the administrator's command-line tool over libzelmgmt.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "dry_run.h"
#include "zelctl.h"

namespace zelctl {
namespace {

struct Command {
    const char *name;
    int (*run)(const Options &opts, Args args);
    const char *usage;  // one or more lines, each ending in a newline
};

// A new command group is one row here.
const Command kCommands[] = {
    {"info", run_info, "info    what the directory is and where the Zel data lies\n"},
    {"service", run_service,
     "service list | get NAME | add NAME --type T [--description D] [--id NAME=VALUE ...]\n"
     "        | remove NAME        (add, remove: [--dry-run])\n"},
    {"service-type", run_service_type, "service-type add NAME [--id NAME ...] | remove NAME   [--dry-run]\n"},
    {"user", run_user,
     "user list | add NAME --type T [--person DN] [--description D] [--disabled]\n"
     "     | update NAME [--person DN] [--description D] [--enabled | --disabled]\n"
     "     | verify PERSON_DN | remove NAME|DN    (add, update, remove: [--dry-run])\n"},
    {"domain", run_domain,
     "domain list | get NAME | add NAME [--description D] [--member SERVICE ...]\n"
     "       | update NAME [--description D] [--member SERVICE ...] | remove NAME\n"
     "       | add-member NAME SERVICE | remove-member NAME SERVICE\n"
     "       (all but list and get: [--dry-run])\n"},
    {"record", run_record,
     "record list USER | get USER ID | remove USER ID     (--reveal shows passwords)\n"
     "     | add|update USER ID --service S [--type T] [--account A] [--description D]\n"
     "       [--password-file F | --password-stdin]        (else a prompt on a terminal)\n"
     "     | rekey USER... | rekey --all [--quiet]   stored passwords rewritten under ZEL_KEYFILE's active key\n"
     "     | import-csv FILE [--dry-run]    rows: user, resource or group, account, password[, description]\n"
     "     (add, update, remove, rekey: [--dry-run])\n"},
    {"key", run_key, "key generate FILE [--add] [--dry-run]   a new key file (mode 0600), or a new active key in FILE\n"},
    {"audit", run_audit,
     "audit verify FILE [--expect HEAD]   the first changed, removed or inserted line of a ZEL_AUDIT trail\n"
     "audit head FILE                     the head to keep: <lines>:<seal of the last line>\n"},
    {"credential", run_credential,
     "credential get USER RESOURCE [--reveal]    the account a sign-on agent presents\n"
     "credential explain USER RESOURCE [--json]  which record answers, and why\n"},
    {"db", run_db,
     "db create SUFFIX [--admin DN|CN] [--admin-uid U] [--admin-password-file F]\n"
     "          [--create-suffix] [--default-types] [--extended] | remove [--yes] [--quiet]   [--dry-run]\n"
     "   (a first-generation session unless --api-version says otherwise)\n"},
    {"doctor", run_doctor,
     "doctor [--user DN --user-password-file F]   a read-only check of the deployment;\n"
     "       exit status 3 when a finding is dangerous\n"},
    {"export", run_export,
     "export [--passwords omit|sealed] [-o FILE] [--quiet]   the Zel data as a JSON document\n"
     "       (sealed: passwords encrypted under ZEL_KEYFILE's active key; never clear text)\n"},
    {"import", run_import,
     "import FILE [--dry-run] [--quiet]   an export written back: missing objects created,\n"
     "       differing ones updated, equal ones left alone\n"},
    {"person", run_person,
     "person add PARENT_DN --cn CN --sn SN [--uid U] [--description D] [--password-file F]\n"
     "           [--type T] [--dry-run]\n"},
};

const char *kOptionsHelp =
    "usage: zelctl [OPTIONS] COMMAND ...\n"
    "       zelctl help [COMMAND] | --help | --version\n"
    "options:\n"
    "  -H URI             ldap://HOST[:PORT], or ldaps://HOST[:PORT] for SSL; without -H\n"
    "                     the client's configured default server (ldap.conf, LDAPURI).\n"
    "                     Several URIs, separated by blanks, name a replicated set:\n"
    "                     the first that answers is used, the next when it fails\n"
    "  --timeout N        seconds each request may take (0: no limit; default 30)\n"
    "  --network-timeout N\n"
    "                     seconds to connect to a server (0: no limit; default 5)\n"
    "  -D DN              the DN to bind as; the bind is simple (-x is accepted)\n"
    "  -w PW | -W | -y FILE\n"
    "                     the password: given (wiped from the process's arguments at once),\n"
    "                     asked for on the terminal, or the whole content of FILE less one\n"
    "                     trailing newline (FILE should be readable by its owner only)\n"
    "  --ca FILE          CA certificates to check an ldaps:// or StartTLS server with\n"
    "  --domain NAME      the security domain (default: Default)\n"
    "  --api-version N    0 or 1: first-generation storage; 2 (default): the security domain\n"
    "  --json             results as JSON, for scripts\n"
    "  --dry-run          with a command that writes (before or after it): what it would write,\n"
    "                     or the failure it would meet (exit 1); nothing is written.  A usage\n"
    "                     error with a command that only reads\n"
    "  Values may be attached: -wPW, -HURI, -DDN, -yFILE, --domain=NAME.\n"
    "  -Z, -ZZ            upgrade ldap:// servers with StartTLS (required: a server that refuses\n"
    "                     it, or whose certificate --ca does not vouch for, is not used)\n";

const char *kExitHelp =
    "exit status: 0 success; 1 the library reported a failure (the message names its\n"
    "status), or user verify found no Zel user; 2 a usage error.\n";

void print_command_usage(FILE *to, const Command &c) {
    std::string text = c.usage;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        std::fprintf(to, "  %s\n", text.substr(start, end - start).c_str());
        start = end + 1;
    }
}

void print_help(FILE *to) {
    std::fputs(kOptionsHelp, to);
    std::fputs("commands:\n", to);
    for (const Command &c : kCommands) print_command_usage(to, c);
    std::fputs(kExitHelp, to);
}

const Command *find_command(const std::string &name) {
    for (const Command &c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

int help(const Args &args) {
    if (args.empty()) {
        print_help(stdout);
        return 0;
    }
    const Command *c = args.size() == 1 ? find_command(args.front()) : nullptr;
    if (!c) return usage("help takes one command name (zelctl --help lists them)");
    std::printf("usage: zelctl [OPTIONS]\n");
    print_command_usage(stdout, *c);
    return 0;
}

// -W and -y are acted on only once the whole line has been read, so that a
// usage error or --help never asks for or reads a secret.
bool read_password(CommandLine &line) {
    Options &opts = line.opts;
    if (line.prompt) {
        if (!prompt_secret("Enter LDAP Password: ", opts.password)) {
            usage("cannot read a password from the terminal");
            return false;
        }
        opts.have_password = true;
    }
    if (!line.password_file.empty()) {
        if (!read_secret_file(line.password_file, opts.password)) {
            usage("cannot read the password file " + line.password_file);
            return false;
        }
        opts.have_password = true;
    }
    return true;
}

int run(CommandLine &line) {
    if (line.help) {
        print_help(stdout);
        return 0;
    }
    if (line.version) {
        std::printf("zelctl %s\n", ZELCTL_VERSION);
        return 0;
    }
    Args &rest = line.rest;
    if (rest.empty()) {
        print_help(stderr);
        return 2;
    }
    std::string name = rest.front();
    rest.erase(rest.begin());
    if (name == "help") return help(rest);
    const Command *command = find_command(name);
    // After -W the next word may be the password typed by mistake: not echoed.
    if (!command)
        return usage((line.prompt ? std::string("unknown command after -W") : "unknown command " + name) +
                     " (zelctl --help lists them)");
    if (take_flag(rest, "--json")) line.opts.json = true;
    if (take_flag(rest, "--dry-run")) line.opts.dry_run = true;
    // Refused where there is nothing to hold back, so that a reader of the
    // line is never left to wonder whether it was honoured.
    if (line.opts.dry_run && !command_writes(name, rest))
        return usage("--dry-run is for commands that write; this " + name + " command only reads");
    // Key files and audit trails are local: no directory, so no bind.
    if (name == "key" || name == "audit") return command->run(line.opts, rest);
    if (!read_password(line)) return 2;
    if (line.opts.bind_dn.empty() || !line.opts.have_password)
        return usage("a bind DN (-D) and a password (-w, -W or -y) are needed");
    return command->run(line.opts, rest);
}

}  // namespace
}  // namespace zelctl

int main(int argc, char **argv) {
    using namespace zelctl;
    CommandLine line;
    std::string error;
    int status = parse_command_line(argc, argv, line, error) ? run(line) : usage(error + " (zelctl --help lists the options)");
    forget_secret(line.opts.password);
    return status;
}
