#!/usr/bin/env python3
"""Checks the folder dependency graph of the library against ARCHITECTURE.md.

The library folders reach each other in two ways: through an internal header
(`#include "core/log.h"`) and through the public headers, where any folder can
call any exported function. This script finds both kinds of use and compares
the resulting folder graph with the `layers` block of ARCHITECTURE.md:

  - a dependency that the block does not list fails (a new edge);
  - a listed dependency that nothing uses any more fails (a stale map);
  - an edge that does not point down the layer order must name the files that
    need it; a use from any other file fails, and so does a named file that
    no longer uses the other folder.

A use of a function or global means a use of the folder whose .cpp defines it
with external linkage (static functions and anonymous namespaces are local).
Comments and string literals are removed before anything is read.

usage: check-layers.py [--print] SOURCE_DIR   check the tree (--print: show the graph)
       check-layers.py --self-test SOURCE_DIR  plant faults in a copy, expect failures
"""

import os
import re
import shutil
import sys
import tempfile

MAP_FILE = "ARCHITECTURE.md"
BLOCK_RE = re.compile(r"^```layers[ \t]*\n(.*?)^```", re.M | re.S)
INCLUDE_RE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"/]+)/([^"]+)"', re.M)
TOKEN_RE = re.compile(r"[A-Za-z_]\w*|::|->|\S")
MAX_EVIDENCE = 5


class MapError(Exception):
    """The layers block of ARCHITECTURE.md cannot be read."""


# ---- reading the sources --------------------------------------------------


def strip_source(text):
    """Returns (without_comments, code): the text with comments blanked, and
    the text with comments and the contents of string and character literals
    blanked. Both keep every newline and the length of the input."""
    no_comments = []
    code = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            end = text.find("\n", i)
            end = n if end < 0 else end
            blank = " " * (end - i)
            no_comments.append(blank)
            code.append(blank)
            i = end
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            blank = re.sub(r"[^\n]", " ", text[i:end])
            no_comments.append(blank)
            code.append(blank)
            i = end
        elif c == '"' or (c == "'" and not _is_digit_separator(text, i)):
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            no_comments.append(text[i:j])
            code.append(c + " " * max(j - i - 2, 0) + (text[j - 1] if j - i > 1 else ""))
            i = j
        else:
            no_comments.append(c)
            code.append(c)
            i += 1
    return "".join(no_comments), "".join(code)


def _is_digit_separator(text, i):
    """True when the quote at i sits inside a number (1'000'000)."""
    j = i
    while j > 0 and (text[j - 1].isalnum() or text[j - 1] == "_"):
        j -= 1
    return j < i and text[j].isdigit()


def blank_directives(code):
    """Blanks preprocessor lines (with their continuations), whose braces and
    parentheses are not part of the C++ structure."""
    out = []
    continued = False
    for line in code.split("\n"):
        if continued or line.lstrip().startswith("#"):
            continued = line.rstrip().endswith("\\")
            out.append(" " * len(line))
        else:
            out.append(line)
    return "\n".join(out)


def tokens(code):
    """Yields (token, line) for every identifier and punctuation token."""
    line = 1
    last = 0
    for m in TOKEN_RE.finditer(code):
        line += code.count("\n", last, m.start())
        last = m.start()
        yield m.group(), line


class SourceFile:
    """One library file: its folder, its text with comments removed, and its
    code with literals blanked."""

    def __init__(self, root, rel):
        self.rel = rel
        self.folder = rel.split("/", 1)[0]
        with open(os.path.join(root, rel), encoding="utf-8", errors="replace") as f:
            self.without_comments, self.code = strip_source(f.read())


# ---- definitions ----------------------------------------------------------


def definitions(code):
    """Returns (external, local): the names of the functions and variables
    defined at namespace scope, split by linkage. Member functions (Class::f)
    and types are not collected."""
    toks = list(tokens(blank_directives(code)))
    external, local = set(), set()
    stack = []  # one entry per open brace: "ns", "anon" or "body"
    stmt = []

    def at_file_scope():
        return "body" not in stack

    def finish(end):
        kind, name = classify(stmt, end)
        if kind is None:
            return
        if "anon" in stack or kind == "local":
            local.add(name)
        else:
            external.add(name)

    for tok, _ in toks:
        if tok == "{":
            if not at_file_scope():
                stack.append("body")
            elif stmt[:1] == ["namespace"]:
                stack.append("anon" if len(stmt) == 1 else "ns")
            elif stmt[:1] == ["extern"] and stmt[1:2] == ['"']:
                stack.append("ns")
            else:
                finish("{")
                stack.append("body")
            stmt = []
        elif tok == "}":
            if stack:
                stack.pop()
            stmt = []
        elif tok == ";":
            if at_file_scope():
                finish(";")
            stmt = []
        else:
            stmt.append(tok)
    return external, local


NOT_DEFINITIONS = {"using", "typedef", "template", "struct", "class", "enum", "union",
                   "static_assert", "friend", "namespace", "return"}


def classify(stmt, end):
    """Classifies a file-scope statement ending in `end` ("{" or ";").
    Returns ("external" | "local", name) for a definition, else (None, None)."""
    stmt = _drop_attributes(stmt)
    if stmt and stmt[0] == "template":
        stmt = _drop_template_head(stmt)
        if stmt and stmt[0] in ("struct", "class", "union"):
            return None, None
    if not stmt or stmt[0] in NOT_DEFINITIONS:
        return None, None
    linkage = "local" if "static" in stmt[:3] else "external"
    depth = 0
    for k, tok in enumerate(stmt):
        if tok in "([":
            if tok == "(" and depth == 0:
                # A function: defined when its body follows.
                if end != "{":
                    return None, None
                return _named(stmt, k, linkage)
            depth += 1
        elif tok in ")]":
            depth -= 1
        elif tok == "=" and depth == 0:
            return _variable(stmt, k, linkage)
    if end == ";" and stmt[0] == "extern":
        return None, None  # a declaration
    return _variable(stmt, len(stmt), linkage)


def _drop_attributes(stmt):
    """The statement without its __attribute__((...)) and alignas(...) parts."""
    out, k = [], 0
    while k < len(stmt):
        if stmt[k] in ("__attribute__", "alignas") and stmt[k + 1:k + 2] == ["("]:
            depth = 0
            k += 1
            while k < len(stmt):
                depth += {"(": 1, ")": -1}.get(stmt[k], 0)
                k += 1
                if depth == 0:
                    break
            continue
        out.append(stmt[k])
        k += 1
    return out


def _drop_template_head(stmt):
    """The statement after its `template <...>` head."""
    depth = 0
    for k, tok in enumerate(stmt[1:], 1):
        depth += {"<": 1, ">": -1}.get(tok, 0)
        if depth == 0:
            return stmt[k + 1:]
    return []


def _variable(stmt, end, linkage):
    """Names the variable declared before stmt[end], skipping array bounds."""
    k = end
    while k > 0 and stmt[k - 1] == "]":
        depth = 0
        while k > 0:
            k -= 1
            depth += {"]": 1, "[": -1}.get(stmt[k], 0)
            if depth == 0:
                break
    if k < 2:  # a variable needs a type before its name
        return None, None
    return _named(stmt, k, linkage)


def _named(stmt, k, linkage):
    """(linkage, name) for the name just before stmt[k], or (None, None) when
    that is no plain name: an operator, a destructor, a class member."""
    name = stmt[k - 1] if k > 0 else ""
    before = stmt[k - 2] if k >= 2 else ""
    if not re.match(r"[A-Za-z_]\w*$", name) or "operator" in (name, before) or before == "~":
        return None, None
    if before == "::" and k >= 3 and stmt[k - 3][:1].isupper():
        return None, None  # a member of a class
    return linkage, name


# ---- the graph ------------------------------------------------------------


class Graph:
    """Folder -> folder uses, each with its evidence (file, line, what)."""

    def __init__(self):
        self.edges = {}  # (user, used) -> [(file, line, what)]
        self.owner = {}  # defined name -> (folder, file)
        self.problems = []

    def add(self, user, used, file, line, what):
        """Records that `file` in folder user uses folder used at `line`."""
        self.edges.setdefault((user, used), []).append((file, line, what))

    def files(self, edge):
        """The files behind an edge, sorted."""
        return sorted({f for f, _, _ in self.edges.get(edge, [])})


def library_files(root, folders):
    """Paths, relative to root, of every .cpp and .h file in the folders."""
    rels = []
    for folder in folders:
        path = os.path.join(root, folder)
        if not os.path.isdir(path):
            continue
        for dirpath, _, names in os.walk(path):
            for name in sorted(names):
                if name.endswith((".cpp", ".h")):
                    rels.append(os.path.relpath(os.path.join(dirpath, name), root))
    return sorted(rels)


def build_graph(root, folders):
    """Reads the folders under root and returns their Graph."""
    graph = Graph()
    files = [SourceFile(root, rel) for rel in library_files(root, folders)]

    owner = graph.owner
    local_names = {}
    for f in files:
        external, local = definitions(f.code)
        local_names[f.rel] = local
        if not f.rel.endswith(".cpp"):
            continue
        for name in sorted(external):
            if name in owner and owner[name][0] != f.folder:
                graph.problems.append(
                    "%s is defined in both %s and %s; the checker cannot tell which folder "
                    "a use depends on" % (name, owner[name][1], f.rel))
            owner.setdefault(name, (f.folder, f.rel))

    for f in files:
        for m in INCLUDE_RE.finditer(f.without_comments):
            used = m.group(1)
            if used in folders and used != f.folder:
                line = f.without_comments.count("\n", 0, m.start()) + 1
                graph.add(f.folder, used, f.rel, line, 'includes "%s/%s"' % (used, m.group(2)))
        shadowed = local_names[f.rel]
        prev = prev2 = ""
        for tok, line in tokens(f.code):
            hit = owner.get(tok)
            if (hit and hit[0] != f.folder and tok not in shadowed and prev not in (".", "->")
                    and not (prev == "::" and prev2[:1].isupper())):
                graph.add(f.folder, hit[0], f.rel, line, "uses %s (%s)" % (tok, hit[1]))
            prev2, prev = prev, tok
    return graph


# ---- the map --------------------------------------------------------------


class LayerMap:
    """The layers block: the layer order and the allowed edges."""

    def __init__(self, text):
        m = BLOCK_RE.search(text)
        if not m:
            raise MapError("%s has no ```layers block" % MAP_FILE)
        first_line = text.count("\n", 0, m.start(1)) + 1
        self.rank = {}
        self.allowed = {}  # (user, used) -> [files] (empty: any file)
        self.where = {}  # (user, used) -> line in ARCHITECTURE.md
        for offset, raw in enumerate(m.group(1).split("\n")):
            line = raw.split("#", 1)[0].strip()
            where = "%s:%d" % (MAP_FILE, first_line + offset)
            if not line:
                continue
            words = line.split()
            if words[0] == "layer":
                if len(words) != 2 or words[1] in self.rank:
                    raise MapError("%s: expected `layer FOLDER` with a new folder" % where)
                self.rank[words[1]] = len(self.rank)
                continue
            em = re.match(r"(\w+)\s*->\s*(\w+)\s*(?::\s*(.*))?$", line)
            if not em:
                raise MapError("%s: cannot read %r (expected `user -> used [: files]`)"
                               % (where, line))
            edge = (em.group(1), em.group(2))
            for folder in edge:
                if folder not in self.rank:
                    raise MapError("%s: %s is not a layer" % (where, folder))
            if edge in self.allowed:
                raise MapError("%s: %s -> %s is listed twice" % (where, edge[0], edge[1]))
            self.allowed[edge] = (em.group(3) or "").split()
            self.where[edge] = where
        if not self.rank:
            raise MapError("%s: the layers block names no layer" % MAP_FILE)

    def folders(self):
        """The layers, lowest first."""
        return sorted(self.rank, key=lambda f: (self.rank[f], f))

    def downward(self, edge):
        """True when the edge points down the stack."""
        return self.rank[edge[1]] < self.rank[edge[0]]


def check(graph, layers):
    """Returns the list of failures, each a text of one or more lines."""
    failures = list(graph.problems)

    def evidence(items):
        shown = ["    %s:%d: %s" % item for item in items[:MAX_EVIDENCE]]
        if len(items) > MAX_EVIDENCE:
            shown.append("    ... and %d more" % (len(items) - MAX_EVIDENCE))
        return "\n".join(shown)

    for edge in sorted(graph.edges):
        items = graph.edges[edge]
        user, used = edge
        if edge not in layers.allowed:
            direction = "down" if layers.downward(edge) else "against the layer order"
            files = "" if layers.downward(edge) else " : " + " ".join(graph.files(edge))
            failures.append(
                "new dependency %s -> %s (%s), not in the layers block of %s:\n%s\n"
                "  If it is intended, add the line `%s -> %s%s  # why` there."
                % (user, used, direction, MAP_FILE, evidence(items), user, used, files))
            continue
        listed = layers.allowed[edge]
        if not listed:
            if not layers.downward(edge):
                failures.append(
                    "%s: %s -> %s goes against the layer order; name the files that need it "
                    "(now: %s)" % (layers.where[edge], user, used, " ".join(graph.files(edge))))
            continue
        extra = [item for item in items if item[0] not in listed]
        if extra:
            failures.append(
                "%s: %s -> %s is allowed only from %s, but also happens in:\n%s"
                % (layers.where[edge], user, used, " ".join(listed), evidence(extra)))
        for name in listed:
            if name not in graph.files(edge):
                failures.append("%s: stale map: %s no longer uses %s (drop it from the %s -> %s "
                                "line)" % (layers.where[edge], name, used, user, used))

    for edge in sorted(layers.allowed):
        if edge not in graph.edges:
            failures.append("%s: stale map: %s -> %s is listed but nothing in %s/ uses %s/"
                            % (layers.where[edge], edge[0], edge[1], edge[0], edge[1]))
    return failures


# Programs built on the library reach it only through its public headers.
CLIENT_FOLDERS = ["cli", "daemons"]


def check_clients(root, folders):
    """Failures for client files that include a library folder's header."""
    failures = []
    for rel in library_files(root, [c for c in CLIENT_FOLDERS if os.path.isdir(os.path.join(root, c))]):
        with open(os.path.join(root, rel), encoding="utf-8") as f:
            for number, line in enumerate(f, 1):
                m = re.match(r'\s*#\s*include\s*"([^/"]+)/', line)
                if m and m.group(1) in folders:
                    failures.append("%s:%d: includes %s/ internals; use the public headers"
                                    % (rel, number, m.group(1)))
    return failures


def analyse(root):
    """Reads the map and the sources under root: (layers, graph, failures)."""
    with open(os.path.join(root, MAP_FILE), encoding="utf-8") as f:
        layers = LayerMap(f.read())
    graph = build_graph(root, layers.folders())
    return layers, graph, check(graph, layers) + check_clients(root, layers.folders())


def print_graph(layers, graph):
    """Prints the graph found, one edge a line in the syntax of the map."""
    for edge in sorted(graph.edges, key=lambda e: (layers.rank[e[0]], e[0], layers.rank[e[1]], e[1])):
        suffix = "" if layers.downward(edge) else " : " + " ".join(graph.files(edge))
        print("%s -> %s%s    # %d uses" % (edge[0], edge[1], suffix, len(graph.edges[edge])))


# ---- self-test ------------------------------------------------------------


def self_test(src):
    """Plants one fault at a time in a copy of the tree and checks that the
    checker reports it. The tree's own state (even a stale map) is the
    baseline, so this test fails only when the checker misses a fault."""
    layers, graph, baseline = analyse(src)
    baseline = "\n".join(baseline)
    folders = layers.folders()
    lowest, highest = folders[0], folders[-1]
    target = next(rel for rel in library_files(src, [lowest]) if rel.endswith(".cpp"))
    header = next(rel for rel in library_files(src, [highest]) if rel.endswith(".h"))
    call = min(name for name, (folder, _) in graph.owner.items() if folder == highest)
    forbidden = "new dependency %s -> %s" % (lowest, highest)

    def append(rel, text):
        return lambda root: _append(os.path.join(root, rel), text)

    cases = [
        ("an unchanged copy reads as the tree", None, []),
        ("a forbidden include fails", append(target, '\n#include "%s"\n' % header),
         [forbidden, target + ":", header]),
        ("a forbidden call fails", append(target, "\nvoid PlantedCaller() { %s(); }\n" % call),
         [forbidden, target + ":", "uses " + call]),
        ("an include in a comment or a string is no use",
         append(target, '\n// #include "%s"\n/* %s(); */\nconst char* planted = "#include \\"%s\\"";\n'
                % (header, call, header)), []),
        ("a client including library internals fails",
         append("cli/main.cpp", '\n#include "%s"\n' % header), ["cli/main.cpp:", "internals"]),
        ("a listed edge that nothing uses fails",
         lambda root: _add_map_line(root, "%s -> %s : %s" % (lowest, highest, target)),
         ["stale map: %s -> %s is listed" % (lowest, highest)]),
    ]
    upward = sorted(e for e in layers.allowed if layers.allowed[e] and not layers.downward(e))
    if upward and upward[0] in graph.edges:
        (user, used), (_, _, what) = upward[0], graph.edges[upward[0]][0]
        planted = "%s/planted-edge.cpp" % user
        if what.startswith("includes "):
            body = "#include %s\n" % what.split()[1]
        else:
            body = "void PlantedUser() { %s(); }\n" % what.split()[1]
        cases.append(("an upward edge from an unlisted file fails", append(planted, body),
                      ["%s -> %s is allowed only from" % (user, used), planted + ":"]))
        spare = next(rel for rel in library_files(src, [user])
                     if rel not in graph.files(upward[0]))
        cases.append(("a listed file that no longer uses the folder fails",
                      lambda root: _add_map_file(root, user, used, spare),
                      ["stale map: %s no longer uses %s" % (spare, used)]))

    failed = 0
    for title, plant, expected in cases:
        with tempfile.TemporaryDirectory(prefix="check-layers.") as tmp:
            for folder in folders + ["include"] + CLIENT_FOLDERS:
                if os.path.isdir(os.path.join(src, folder)):
                    shutil.copytree(os.path.join(src, folder), os.path.join(tmp, folder))
            shutil.copy(os.path.join(src, MAP_FILE), tmp)
            if plant:
                plant(tmp)
            try:
                got = analyse(tmp)[2]
            except MapError as e:
                got = ["map error: %s" % e]
        text = "\n".join(got)
        if expected:
            ok = all(e in text and e not in baseline for e in expected)
        else:
            ok = text == baseline
        failed += not ok
        print("%s: %s" % ("ok" if ok else "FAILED", title))
        if not ok:
            print("  expected %s, got:\n%s" % (expected or "the tree's own result",
                                                 text or "  (nothing)"))
    return 1 if failed else 0


def _append(path, text):
    with open(path, "a", encoding="utf-8") as f:
        f.write(text)


def _rewrite_map(root, edit):
    path = os.path.join(root, MAP_FILE)
    with open(path, encoding="utf-8") as f:
        text = f.read()
    with open(path, "w", encoding="utf-8") as f:
        f.write(edit(text))


def _add_map_line(root, line):
    """Adds `line` as the last line of the layers block."""
    def edit(text):
        m = BLOCK_RE.search(text)
        return text[:m.end(1)] + line + "\n" + text[m.end(1):]
    _rewrite_map(root, edit)


def _add_map_file(root, user, used, name):
    """Adds `name` to the files of the listed edge user -> used."""
    pattern = re.compile(r"^(%s\s*->\s*%s\s*:)" % (user, used), re.M)
    _rewrite_map(root, lambda text: pattern.sub(r"\1 " + name, text, count=1))


def main(argv):
    """Runs the check or the self-test; returns the exit status."""
    args = [a for a in argv[1:] if not a.startswith("--")]
    flags = {a for a in argv[1:] if a.startswith("--")}
    if len(args) != 1 or not flags <= {"--print", "--self-test"}:
        sys.stderr.write(__doc__)
        return 2
    try:
        if "--self-test" in flags:
            return self_test(args[0])
        layers, graph, failures = analyse(args[0])
    except MapError as e:
        print("check-layers: %s" % e)
        return 1
    if "--print" in flags:
        print_graph(layers, graph)
    for failure in failures:
        print("check-layers: " + failure)
    if failures:
        print("check-layers: %d problem(s); the layers block of %s is the map to update."
              % (len(failures), MAP_FILE))
        return 1
    if "--print" not in flags:
        print("check-layers: %d folder dependencies, all as %s says" % (len(graph.edges), MAP_FILE))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
