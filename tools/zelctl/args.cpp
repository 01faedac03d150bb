// Option and operand handling shared by the command groups.
#include <cstdio>

#include "zelctl.h"

namespace zelctl {

bool take_option(Args &args, const std::string &name, std::string &value) {
    const std::string attached = name + "=";
    for (size_t i = 0; i < args.size(); ++i) {
        auto at = args.begin() + static_cast<long>(i);
        if (args[i].compare(0, attached.size(), attached) == 0) {
            value = args[i].substr(attached.size());
            args.erase(at);
            return true;
        }
        if (args[i] != name) continue;
        if (i + 1 >= args.size()) return false;  // left for take_value to report
        value = args[i + 1];
        args.erase(at, at + 2);
        return true;
    }
    return false;
}

bool take_flag(Args &args, const std::string &name) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

bool take_value(Args &args, const std::string &name, std::string &value, bool &given, int &status) {
    given = take_option(args, name, value);
    if (!given && take_flag(args, name)) {
        status = usage(name + " needs a value");
        return false;
    }
    return true;
}

std::vector<std::string> take_all(Args &args, const std::string &name) {
    std::vector<std::string> out;
    std::string value;
    while (take_option(args, name, value)) out.push_back(value);
    return out;
}

bool take_operands(const Args &args, const std::string &command, std::initializer_list<const char *> names,
                   std::vector<std::string> &out, int &status) {
    for (const std::string &a : args) {
        if (a.size() > 1 && a[0] == '-') {
            // Named without an attached value: that may be a secret.
            status = usage(command + ": unknown option or missing value: " + a.substr(0, a.find('=')));
            return false;
        }
    }
    if (args.size() != names.size()) {
        std::string wanted;
        for (const char *n : names) wanted += std::string(wanted.empty() ? "" : " ") + n;
        status = usage(command + " needs " + (wanted.empty() ? "no operands" : wanted));
        return false;
    }
    out = args;
    return true;
}

}  // namespace zelctl
