#!/usr/bin/env python3
"""The library's own instructions per call, from a callgrind profile.

    own_instructions.py count PROFILE CALLS
    own_instructions.py tree PROFILE CALLS [DEPTH] [MIN]

PROFILE is a callgrind output file of zel_bench collected within one
measured function (as bench/instructions.sh makes them), CALLS the number
of calls it holds.  "Own" is code of the zel_bench program, into which the
library is linked, outside the benchmark's own files (bench/*.cpp, *.h),
with what the compiler inlined into it from headers; libldap, libc, ICU
and libsodium count for nothing, but library code they call back (the
socket layer) counts under the call that led there.

`count` prints the instructions per call in all and the library's own.
`tree` prints where the own ones go: one line per function as its caller
reaches it, inclusive (the function and everything it calls) and, in
brackets, exclusive (its own lines).  A function reached from several
places is shared out in proportion to what each call site spent in it.
Lines under MIN instructions (default 25) are left out; DEPTH (default 6)
bounds the tree.
"""
import re
import sys
from collections import Counter, defaultdict

BENCH_FILE = re.compile(r"/bench/[^/]+\.(cpp|h)$")


def read_profile(path):
    """Exclusive costs, call edges (inclusive cost per caller and callee),
    and each function's object and file."""
    tables = {"ob": {}, "fl": {}, "fn": {}}
    table_of = {"ob": "ob", "cob": "ob", "fl": "fl", "fi": "fl", "fe": "fl", "cfi": "fl", "cfl": "fl",
                "fn": "fn", "cfn": "fn"}

    def name(kind, text):
        m = re.match(r"\((\d+)\)(?: (.*))?$", text)
        if not m:
            return text
        table = tables[table_of[kind]]
        if m.group(2) is not None:
            table[m.group(1)] = m.group(2)
        return table[m.group(1)]

    exclusive, edges, where = Counter(), defaultdict(Counter), {}
    ob = fl = fn = callee = None
    in_call = False
    with open(path) as f:
        for line in f:
            line = line.rstrip("\n")
            key, eq, value = line.partition("=")
            if eq and key in table_of:
                text = name(key, value)
                if key == "ob":
                    ob = text
                elif key == "fl":
                    fl = text
                elif key == "fn":
                    fn = text
                    where.setdefault(fn, (ob, fl))
                elif key == "cfn":
                    callee = text
                continue
            if line.startswith("calls="):
                in_call = True
                continue
            if line and (line[0].isdigit() or line[0] in "+-*"):
                fields = line.split()
                if len(fields) < 2:
                    continue
                cost = int(fields[1])
                if in_call:
                    edges[fn][callee] += cost
                    in_call = False
                else:
                    exclusive[fn] += cost
    return exclusive, edges, where


def own_costs(exclusive, edges, where):
    def is_own(fn):
        ob, fl = where.get(fn, (None, None))
        return bool(ob) and ob.endswith("/zel_bench") and not BENCH_FILE.search(fl or "")

    reached = Counter()
    for callees in edges.values():
        for callee, cost in callees.items():
            reached[callee] += cost
    own_excl = {fn: (cost if is_own(fn) else 0) for fn, cost in exclusive.items()}
    memo = {}

    def inclusive(fn, path=()):
        if fn in memo:
            return memo[fn]
        if fn in path:  # recursion: the outer call already counts it
            return 0
        total = own_excl.get(fn, 0)
        for callee, cost in edges[fn].items():
            total += cost / reached[callee] * inclusive(callee, path + (fn,))
        memo[fn] = total
        return total

    return own_excl, inclusive, reached


def short(fn):
    fn = fn.replace("(anonymous namespace)::", "")
    fn = re.sub(r"\[clone [^\]]*\]", "", fn)
    depth, out = 0, []
    for ch in fn:  # drop argument lists and template arguments
        if ch in "(<":
            depth += 1
        elif ch in ")>":
            depth -= 1
        elif depth == 0:
            out.append(ch)
    text = "".join(out).strip()
    return re.sub(r"^(unsigned int|int|void|bool|char const\*) ", "", text)


def main():
    if len(sys.argv) < 4 or sys.argv[1] not in ("count", "tree"):
        sys.exit(__doc__)
    path, calls = sys.argv[2], float(sys.argv[3])
    max_depth = int(sys.argv[4]) if len(sys.argv) > 4 else 6
    least = float(sys.argv[5]) if len(sys.argv) > 5 else 25
    exclusive, edges, where = read_profile(path)
    own_excl, inclusive, reached = own_costs(exclusive, edges, where)
    if sys.argv[1] == "count":
        print("%d %d" % (sum(exclusive.values()) / calls, sum(own_excl.values()) / calls))
        return
    roots = [fn for fn in where if fn.startswith("bench_measured_")]
    if not roots:
        sys.exit("own_instructions: no bench_measured_ function in " + path)

    def show(fn, share, depth, path):
        incl = share * inclusive(fn) / calls
        if incl < least:
            return
        excl = share * own_excl.get(fn, 0) / calls
        print("%s%6.0f (%4.0f) %s" % ("  " * depth, incl, excl, short(fn)))
        if depth == max_depth:
            return
        for callee in sorted(edges[fn], key=lambda c: -edges[fn][c] / reached[c] * inclusive(c)):
            if callee not in path:
                show(callee, share * edges[fn][callee] / reached[callee], depth + 1, path | {callee})

    print("own instructions per call: inclusive (exclusive)")
    for root in roots:
        show(root, 1.0, 0, {root})


if __name__ == "__main__":
    main()
