// Option and operand handling shared by the command groups.
#include <cstdio>

#include "zelctl.h"

namespace zelctl {

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
            status = usage(command + ": unknown option or missing value: " + a);
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

int report_done(const Options &opts, const char *what, const char *key, const std::string &name, const char *verb) {
    if (opts.json)
        std::printf("{\"%s\":%s,\"%s\":true}\n", key, json_string(name.c_str()).c_str(), verb);
    else
        std::printf("%s %s %s\n", what, name.c_str(), verb);
    return 0;
}

}  // namespace zelctl
