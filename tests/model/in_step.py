#!/usr/bin/env python3
"""Holds the model qx-proc-wex/wex_core.pml and the code together (the head of the model says how).

Of each function that is a transition of the model, the locks that it takes and gives back, the functions of the model
that it calls, and the fields of a record that it reads and writes must be those of the model, in the same order. A field is
read as often as one likes in a row. Usage: tests/model/in_step.py [--show NAME]
"""
import os
import re
import sys

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
SOURCES = os.path.join(ROOT, "qx-proc-wex")
MODEL = os.path.join(SOURCES, "wex_core.pml")
LOCKS = ("wex_chains", "wex_chains_delay", "wex_spawn_mutex")
FIELDS = ("alarm_wait_flag", "exit_seen", "force_restart", "gone_since", "flags", "check_count", "pid")
WRITTEN_ONLY = ("pid",)                      # read everywhere
# Whoever calls one of these, or writes a field, changes the registry.
CHANGES = ("__wex_add_record", "__wex_drop_record", "__wex_drop_registration", "__wex_recycle_registration", "__wex_recycle_record",
           "__wex_recycle_pid", "__wex_restore_record", "__wex_adopt_pid", "drop_registration", "hlist_del")
SILENT = r"\b(wex_dbg|wex_dbg_print|wex_status_\w+|printk_syslog_ext|static_assert)\s*\("


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def closing(text, start, pair="()"):
    """The position behind the bracket that closes the one at `start`."""
    depth = 0
    for at in range(start, len(text)):
        depth += (text[at] == pair[0]) - (text[at] == pair[1])
        if depth == 0:
            return at + 1
    raise SystemExit("no end of a bracket: " + text[start:start + 60])


def without_silent(text):
    """Without what only tells people what happens."""
    while True:
        found = re.search(SILENT, text)
        if not found:
            return text
        text = text[:found.start()] + text[closing(text, found.end() - 1):]


# ---- The code ------------------------------------------------------------------------------------------------

def functions_of(text):
    """Name and body of each function of a formatted source: it begins and ends in the first column."""
    found = {}
    for match in re.finditer(r"^(?:[A-Za-z_][^\n;={}#]*?[\s*&])??([A-Za-z_]\w*)(\([^;{}]*?\)[^;{}()]*?(?:WEX_TSA\([^;{}]*?\)\)\s*)?)\{\n(.*?)^\}", text, re.S | re.M):
        if match[1] not in ("namespace", "struct", "WEX_TSA"):
            found.setdefault(match[1], match[3])
    return found


def read_code(texts):
    """(FILE, NAME) and body."""
    return {(file, name): body for file, text in texts.items() for name, body in functions_of(without_silent(without_comments(text))).items()}


def read_texts():
    return {name: open(os.path.join(SOURCES, name)).read() for name in sorted(os.listdir(SOURCES)) if name.endswith(".cpp")}


# ---- The model -----------------------------------------------------------------------------------------------

class Model:
    def __init__(self, text):
        self.left_out = dict(re.findall(r"^//   (\w+): (.+)$", text, re.M))
        plain = "\n".join(line for line in self.unbroken(text.split("\n")))
        self.steps, self.transitions, self.names = {}, {}, {}
        for match in re.finditer(r"^(?:inline|active proctype) (\w+)\([^)]*\) \{(?:  // ([\w.]+)(?:: (\w+))?(, in one step)?)?\n(.*?)^\}", plain, re.S | re.M):
            if match[2]:
                key = (match[2], match[3] or match[1])
                self.names[match[1]] = key[1]
                (self.steps if match[4] else self.transitions)[key] = (match[1], without_comments(match[5]))
        for name, file in re.findall(r"^#define (\w+)\([^)]*\) .*  // ([\w.]+), in one step$", plain, re.M):
            self.names[name] = name
            self.steps[file, name] = (name, "")

    @staticmethod
    def unbroken(lines):
        """The model that is not broken, and has everything happen."""
        keep = [True]
        for line in lines:
            if line.startswith(("#ifndef", "#ifdef")):
                keep.append(keep[-1] and (line.startswith("#ifndef") or not re.search("KEPT", line)))
            elif line.startswith("#else"):
                keep[-1] = not keep[-1]
            elif line.startswith("#endif"):
                keep.pop()
            elif keep[-1]:
                yield line


# ---- Comparison ----------------------------------------------------------------------------------------------

FIELD = r"(?P<pre>(?:\+\+|--))?\b(?:rec|copy)(?:->|\[[^\]]*\]\.)(?P<field>%s)\b(?P<post>\s*(?:\+\+|--|(?:[|&+-]|<<|>>)?=(?!=)\s*(?P<value>\d+\b\s*[;\n])?))?" % "|".join(FIELDS)


def tokens_of(body, names, in_code):
    """`names`: what calls are called in the text, and in the list of tokens."""
    lock = (r"\b(?:const )?(?P<owner>chain_lock|spawn_guard)\s+\w+(?:\(\s*(?P<held>\w+)\s*\))?;" if in_code
            else r"\b(?P<lock>lock|unlock)\((?P<held>\w+)\)")
    calls = r"\b(?P<call>%s)\s*\(" % "|".join(sorted(map(re.escape, names), key=len, reverse=True))
    found, depth, held = [], 0, []
    for match in re.finditer("|".join((lock, calls, FIELD, r"(?P<brace>[{}])")), body):
        group = match.groupdict()
        if group["brace"]:
            depth += 1 if group["brace"] == "{" else -1
            while in_code and held and held[-1][0] > depth:
                found.append("-" + held.pop()[1])
        elif in_code and group.get("owner"):
            name = group["held"] or "wex_spawn_mutex"
            if name in LOCKS:
                held.append((depth, name))
                found.append("+" + name)
        elif not in_code and group.get("lock"):
            found.append(("+" if group["lock"] == "lock" else "-") + group["held"])
        elif group["call"]:
            found.append(names[group["call"]])
        elif group["field"]:
            written = bool(group["post"] or group["pre"])
            value = re.sub(r"\D", "", group["value"] or "")
            if written or group["field"] not in WRITTEN_ONLY:
                found.append(group["field"] + ("=" + value if written else "?"))
    while held:
        found.append("-" + held.pop()[1])
    return tidy(found)


def tidy(found):
    """Without repeated reads, and reads of a field for what is written to it."""
    kept = []
    for token in found:
        if token.endswith("?") and kept and kept[-1] in (token, token[:-1] + "="):
            continue
        kept.append(token)
    return kept


def expand_reserve(body, code):
    """with_reserve([...]() { BODY }) has BODY run where the template runs what it is given."""
    found = re.search(r"\bwith_reserve\(", body)
    if not found:
        return body
    end = closing(body, found.end() - 1)
    start = body.index("{", found.end())
    inner = body[start:closing(body, start, "{}")]
    return body[:found.start()] + code["wex_core_exit.cpp", "with_reserve"].replace("handle();", inner) + body[end:]


def compare(code, model):
    complaints = []
    for (file, name) in list(model.transitions) + list(model.steps):
        if (file, name) not in code:
            complaints.append("%s has no function %s, which is in the model" % (file, name))
    for (file, name), (alias, text) in model.transitions.items():
        if (file, name) not in code:
            continue
        theirs = {key[1] for key in list(model.transitions) + list(model.steps) if key[0] == file or key[1].startswith(("wex_", "__wex_")) or key[1] not in
                  {other for (where, other) in code if where == file}}
        in_code = tokens_of(expand_reserve(code[file, name], code), {one: one for one in theirs}, True)
        in_model = tokens_of(text, {one: its for one, its in model.names.items()}, False)
        if in_code != in_model:
            complaints.append("%s in %s differs from the model:\n  code:  %s\n  model: %s" % (name, file, " ".join(in_code), " ".join(in_model)))
    known = {name for _, name in list(model.transitions) + list(model.steps)}
    changing = set()
    for (file, name), body in code.items():
        tokens = tokens_of(body, {one: one for one in CHANGES}, True)
        if any(token in CHANGES or re.search(r"=\d*$", token) for token in tokens):
            changing.add(name)
            if name not in known and name not in model.left_out:
                complaints.append("%s in %s changes the registry, and the model does not know it: %s" % (name, file, " ".join(tokens)))
    complaints += ["the model leaves out %s, which does not change the registry" % name for name in model.left_out if name not in changing]
    return complaints


# ---- Proof that the comparison can fail ----------------------------------------------------------------------

def transitions_of(text, file, model):
    return [body for (_, name), body in read_code({file: text}).items() if (file, name) in model.transitions or name == "with_reserve"]


def breaks(texts, model):
    """Sources whose transitions lack one lock, or that have one function more."""
    for file in sorted({file for file, _ in model.transitions}):
        lines = texts[file].split("\n")
        whole = transitions_of(texts[file], file, model)
        for at, line in enumerate(lines):
            if re.match(r"\s+(const )?(chain_lock|spawn_guard) \w+(\(wex_chains(_delay)?\))?;", line):
                text = "\n".join(lines[:at] + lines[at + 1:])
                if transitions_of(text, file, model) != whole:
                    yield "%s:%d: %s" % (file, at + 1, line.strip()), {**texts, file: text}
    more = "\nvoid forget_exit(wex_pid* rec) {\n  rec->exit_seen = 0;\n}\n"
    yield "a function more", {**texts, "wex_msg.cpp": texts["wex_msg.cpp"] + more}


def main():
    texts = read_texts()
    with open(MODEL) as file:
        model = Model(file.read())
    complaints = compare(read_code(texts), model)
    tried = 0
    if not complaints:
        for what, broken in breaks(texts, model):
            tried += 1
            if not compare(read_code(broken), model):
                complaints.append("not noticed when it is missing: " + what)
        if tried < 15:
            complaints.append("only %d locks were taken out" % tried)
    for complaint in complaints:
        print("FAILED " + complaint)
    print("%d functions as in the model, %d in one step, %d left out, %d locks and functions taken out or added" % (
        len(model.transitions), len(model.steps), len(model.left_out), tried))
    sys.exit(1 if complaints else 0)


if __name__ == "__main__":
    main()
