#!/usr/bin/env python3
"""Makes a manual page in section 3iosched for every exported function, out of the header comments.

usage: make_pages.py SOURCE OUT

SOURCE is the source tree, OUT the directory for the pages. The header comments are the only text: a
page cannot say anything else than the header does. What is read from a comment: its paragraphs; lists
of "  name   text" lines; the sentences from "Returns" on, for RETURN VALUE; every errno name and result
code in it, for ERRORS. Functions that share a comment share a page, under each of their names.
"""
import email.utils
import os
import re
import sys
import textwrap

STUBS = {"pause", "sleep", "usleep", "popen", "pclose"}
# What an errno means where the comment only names it.
PLAIN = {"ENOMEM": "Out of memory.", "EINVAL": "An argument is not valid.", "ESRCH": "No such registration.",
         "EINTR": "A caught signal ended the call.",
         "SCHED_ERR_SYSTEM": "A system or threads call failed; errno says why."}


class Block:
    """A comment and the declarations behind it."""

    def __init__(self, text, code, section):
        self.text, self.code, self.section = text, code, section

    def prototypes(self):
        code = re.sub(r"/\*.*?\*/", "", self.code, flags=re.S)
        code = "\n".join(line for line in code.split("\n") if not line.startswith("#"))
        if re.match(r"\s*(typedef|struct)\b", code):
            return {}
        found = {}
        for statement in code.split(";"):
            statement = " ".join(statement.split()).replace(" IOSCHED_LIBC_NOEXCEPT", "")
            match = re.match(r"[\w ]+[ *](\w+)\(", statement)
            if match:
                found.setdefault(match[1], statement + ";")
        return found


def comment_text(lines):
    """The comment without its frame; indentation stays, since lists are known by it."""
    text = "\n".join(lines).strip()
    text = re.sub(r"^/\*+ ?|\s*\*/$", "", text)
    return "\n".join(re.sub(r"^ \* ?", "", line) for line in text.split("\n")).strip("\n")


def read_header(path):
    """The head comment and the blocks, each with the section (title, text) in which it stands."""
    lines = open(path, encoding="utf-8").read().split("\n")
    head, section, blocks, i = None, ("", ""), [], 0
    while i < len(lines):
        if not lines[i].startswith("/*"):
            i += 1
            continue
        start = i
        while "*/" not in lines[i]:
            i += 1
        text = comment_text(lines[start:i + 1])
        i += 1
        start = i
        while i < len(lines) and lines[i].strip() and not lines[i].startswith("/*"):
            i += 1
        code = "\n".join(lines[start:i])
        title = re.match(r"-+ (.*?) -+\n*", text)
        if head is None:
            head = text
        elif title:
            section = (title[1], text[title.end():])
        elif not code.strip():
            section = (section[0], (section[1] + "\n\n" + text).strip())
        else:
            blocks.append(Block(text, code, section))
    return head, blocks


def sentences_on_results(paragraph):
    """Splits a paragraph before the sentence that tells the result: (description, results)."""
    match = re.search(r"(?:(?<=^)|(?<=[.;)] ))Returns? ", paragraph)
    if not match or paragraph.startswith(" "):
        return paragraph, ""
    return paragraph[:match.start()].strip(), paragraph[match.start():].strip()


def paragraphs(text):
    """Paragraphs as ("text", words) or ("list", [(term, words)])."""
    for part in re.split(r"\n\s*\n", text):
        lines = part.split("\n")
        if not part.strip():
            continue
        if all(re.match(r"  |- ", line) for line in lines if line.strip()):
            items = []
            indent = len(lines[0]) - len(lines[0].lstrip())
            for line in lines:
                term = re.match(r" {%d}(\S.*?)(?:  +(\S.*))?$" % indent, line)
                bullet = re.match(r"- (.*)", line)
                if bullet:
                    items.append(["\\(bu", bullet[1]])
                elif term:
                    items.append([term[1], term[2] or ""])
                else:
                    items[-1][1] += " " + line.strip()
            yield "list", items
        else:
            yield "text", " ".join(line.strip() for line in lines)


def roff(text, names):
    """Escapes text and sets functions, values and errno names off."""
    text = text.replace("\\(bu", "\0").replace("\\", "\\e").replace("\0", "\\(bu").replace("-", "\\-")
    text = re.sub(r"\b(\w+)\(\)", lambda m: (r"\fB%s\fR()" % m[1]), text)
    text = re.sub(r"\b([A-Z][A-Z0-9]*_[A-Z0-9_]+|E[A-Z]{3,}|NULL)\b(?!\()", r"\\fB\1\\fR", text)
    text = re.sub(r"\b(%s)\b(?!\(|\\f)" % "|".join(sorted(names)), r"\\fI\1\\fR", text) if names else text
    return re.sub(r"^([.'])", r"\\&\1", text)


def errors(text):
    """(name, clause) of each errno and result code; the clause is what stands behind the name."""
    flat = " ".join(text.split())
    found = {}
    tokens = list(re.finditer(r"\b(E[A-Z0-9]{3,}|S(?:CHED|HARED)_ERR_[A-Z]+)\b", flat))
    for i, token in enumerate(tokens):
        stop = tokens[i + 1].start() if i + 1 < len(tokens) else len(flat)
        clause = re.split(r"[.;](?: |$)", flat[token.end():stop])[0]
        if clause.strip() == "or" and i + 1 < len(tokens):  # A or B when ...: the clause is both's
            after = tokens[i + 2].start() if i + 2 < len(tokens) else len(flat)
            clause = re.split(r"[.;](?: |$)", flat[tokens[i + 1].end():after])[0]
        clause = re.sub(r"^[\s,:)]+|[\s,(]+$", "", clause)
        clause = re.sub(r"[\s,]*\b(or|and|with|the other|errno|\-1 with|\-1 with errno|for)$", "", clause).strip(" ,")
        if token[1] not in found or len(clause) > len(found[token[1]]):
            found[token[1]] = clause if len(clause) > 8 else found.get(token[1], "")
    return found


def emit_text(out, text, names):
    for kind, what in paragraphs(text):
        if kind == "text":
            out += [".PP", roff(what, names)]
        else:
            for term, words in what:
                out += [".TP" if term != "\\(bu" else ".IP \\(bu 2"]
                if term != "\\(bu":
                    out += [r"\fI%s\fR" % roff(term, ())]
                out += [roff(words, names)]


def tidy(lines):
    """Folds text as people would, and leaves out paragraph marks that a heading makes idle."""
    out, verbatim = [], False
    for line in lines:
        if line in (".EX", ".nf"):
            verbatim = True
        if line in (".EE", ".fi"):
            verbatim = False
        if line == ".PP" and out and re.match(r"\.(SH|SS)", out[-1]):
            continue
        out += [line] if verbatim or line.startswith(".") or not line else textwrap.wrap(
            line, 78, break_long_words=False, break_on_hyphens=False)
    return [re.sub(r"^(['.](?![A-Z]{1,2}\b|nf|fi|\\\"|so))", r"\\&\1", line) for line in out]


def literal(out, code):
    out += [".PP", ".EX"] + [re.sub(r"^([.'])", r"\\&\1", line.replace("\\", "\\e").replace("-", "\\-"))
                             for line in code.strip("\n").split("\n")] + [".EE"]


def example_of(name, examples):
    """The part of the smallest example program that calls the function: one function of it."""
    for path, text in examples:
        code = re.sub(r"/\*.*?\*/|//[^\n]*", lambda m: re.sub(r"[^\n]", " ", m[0]), text, flags=re.S)
        for body in re.finditer(r"^(?:\w[^\n;]*)\{\n.*?^\}", code, flags=re.M | re.S):
            if re.search(r"\b%s\(" % name, body[0]):
                return path, text[body.start():body.end()]
    return None


def write_page(out_dir, header, head, block, family, types, examples, node, date):
    protos = block.prototypes()
    names = list(protos)
    params = set(re.findall(r"[ *](\w+)(?:,|\)|\[)", " ".join(protos.values()))) - {"void"}
    every = "\n\n".join([block.text, block.section[1]])
    description, results = [], []
    for part in re.split(r"\n\s*\n", block.text):
        if part.startswith(" "):
            description.append(part)
            continue
        told, result = sentences_on_results(" ".join(part.split("\n")))
        description += [told] if told else []
        results += [result] if result else []
    first = re.split(r"(?<=[a-z)])[.:;](?: |$)", " ".join(block.text.split()))[0]
    if len(first) > 75:  # to the end of a phrase, if there is one
        phrase = re.match(r".{20,75}(?=,| that | which | or | and )", first)
        first_phrase = phrase[0] if phrase else first[:first.rfind(" ", 0, 72)] + " ..."
    brief = first if len(first) <= 75 else first_phrase

    out = ['.\\" Made by docs/man/make_pages.py from iosched/%s; do not edit.' % header,
           '.TH %s 3iosched "%s" "iosched 7.1.0" "iosched Programmer\'s Manual"' % (names[0].upper(), date),
           ".SH NAME", ", ".join(names) + r" \- " + roff(brief[0].lower() + brief[1:], ()),
           ".SH LIBRARY", "iosched runtime library (libiosched, \\-liosched)",
           ".SH SYNOPSIS", ".nf", r"\fB#include <iosched/%s>\fR" % header, ".PP"]
    for proto in protos.values():
        hang = " " * (proto.index("(") + 1 if proto.index("(") < 40 else 4)
        out += [r"\fB%s\fR" % line for line in textwrap.wrap(proto, 76, subsequent_indent=hang)]
    out += [".fi"]
    used = [t for t in types if re.search(r"\b%s\b" % t, " ".join(protos.values()))]
    used += [t for t in types if t not in used and "(*" in types[t].split("\n")[0] and any(re.search(r"\b%s\b" % t, types[u]) for u in used)]
    prefixes = set(re.findall(r"\b([A-Z]+_(?:[A-Z]+_)*)(?= |\b[a-z])", block.text))
    out += [".SH DESCRIPTION"]
    emit_text(out, "\n\n".join(description), params)
    for name in used:
        literal(out, types[name])
    for prefix in sorted(p for p in prefixes if p in types):
        literal(out, types[prefix])
    if block.section[1]:
        out += [".SS " + roff(block.section[0][0].upper() + block.section[0][1:], ())]
        emit_text(out, block.section[1], ())
    general = head.split("\n\n", 1)[1] if "\n\n" in head else ""
    if general:
        out += [".SS All of <iosched/%s>" % header]
        emit_text(out, general, ())

    out += [".SH RETURN VALUE"]
    fallback = [s for text in (block.section[1], general.replace("\n- ", "\n\n"))
                for s in re.findall(r"(?:^|(?<=\. ))[^.]*\breturns?\b[^.]*\.", " ".join(text.split()))]
    if not results and all(p.startswith("void ") for p in protos.values()):
        results = ["No value."]
    elif not results and fallback:
        results = fallback[:1]
    elif not results:
        results = [first + "."]
    for result in results:
        out += [".PP", roff(result, params)]
    found = errors(every)
    if found:
        out += [".SH ERRORS"]
        for name, clause in found.items():
            said = [s for s in re.split(r"(?<=[.:;]) ", " ".join(every.split())) if name in s]
            words = clause or types.get("code " + name) or PLAIN.get(name) or said[0]
            words = re.sub(r"^(and|with which|,) |^\(|\)?[.;]*$", "", words)
            out += [".TP", r"\fB%s\fR" % name, roff(words[0].upper() + words[1:] + ".", params)]
    out += [".SH VERSIONS", "Since iosched %s." % node[names[0]].replace("IOSCHED_", "")]
    example = next((e for e in (example_of(n, examples) for n in names) if e), None)
    if example:
        out += [".SH EXAMPLE", "From the example program %s:" % roff(example[0], ())]
        literal(out, example[1])
    others = sorted(n for n in family if n not in names)
    out += [".SH SEE ALSO"]
    out += [".BR %s (3iosched)," % n for n in others]
    out += [".BR iosched\\-%s (3)," % header[:-2], ".BR iosched (7)"]
    with open(os.path.join(out_dir, names[0] + ".3iosched"), "w", encoding="utf-8") as page:
        page.write("\n".join(tidy(out)) + "\n")
    for name in names[1:]:
        link = os.path.join(out_dir, name + ".3iosched")
        if os.path.lexists(link):
            os.unlink(link)
        os.symlink(names[0] + ".3iosched", link)
    return names


def type_table(blocks):
    """Definitions by name: types, families of flags by prefix, texts of result codes."""
    types = {}
    for block in blocks:
        code = block.code
        for match in re.finditer(r"^typedef .*?\(\*(\w+)\).*?;|^typedef struct (\w+) \{.*?^\} \w+;|^struct (\w+) \{.*?^\};",
                                 code, flags=re.M | re.S):
            types[match[1] or match[2] or match[3]] = match[0]
        for line in re.findall(r"^#define ([A-Z]+_\w+)[^\n]*", code, flags=re.M):
            for prefix in {line[:m.end()] for m in re.finditer("_", line)}:
                if re.search(r"\b%s(?=[ ,.])" % prefix, "\n".join(b.text for b in blocks)):
                    wanted = [d for d in re.findall(r"^#define [^\n]*", code, flags=re.M) if " " + prefix in d]
                    types[prefix] = "\n".join(wanted)
        for name, text in re.findall(r"^#define (S\w+_ERR_\w+) \d+ +/\* (.*?) \*/", code, flags=re.M):
            types["code " + name] = text
    return types


def main():
    source, out_dir = sys.argv[1:3]
    os.makedirs(out_dir, exist_ok=True)
    node, current = {}, ""
    for line in open(os.path.join(source, "src/exports.list"), encoding="utf-8"):
        current = line.strip()[1:] if line.startswith("@") else current
        if re.match(r"\w", line):
            node[line.strip()] = current
    changelog = open(os.path.join(source, "debian/changelog"), encoding="utf-8").read()
    date = email.utils.parsedate_to_datetime(re.search(r"^ -- .*?>  (.*)", changelog, flags=re.M)[1]).date()
    examples = []
    for directory, _, files in os.walk(os.path.join(source, "examples")):
        examples += [(f, open(os.path.join(directory, f), encoding="utf-8").read())
                     for f in files if f.endswith(".c") or (f.endswith(".cpp") and directory.endswith("examples"))]
    examples.sort(key=lambda e: len(e[1]))
    made = set()
    for header in sorted(os.listdir(os.path.join(source, "include/iosched"))):
        head, blocks = read_header(os.path.join(source, "include/iosched", header))
        types = type_table(blocks)
        families = {}
        for block in blocks:
            families.setdefault(block.section[0], []).extend(n for n in block.prototypes() if n in node)
        for block in blocks:
            if any(n in node for n in block.prototypes()):
                made.update(write_page(out_dir, header, head, block, families[block.section[0]], types,
                                       examples, node, date))
    data = {"iosched_version", "ZORoptind", "ZORopterr", "ZORoptopt", "ZORoptarg", "ZORoptreset"}
    missing = set(node) - made - STUBS - data
    if missing:
        sys.exit("make_pages.py: no page for " + " ".join(sorted(missing)))


main()
