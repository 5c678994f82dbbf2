#!/usr/bin/env python3
"""Writes the section 3 manual pages from the comments of the public headers, and fills in those of section 5.

  generate_man.py INCLUDE_FOLDER OUTPUT_FOLDER VERSION SECTION_5_PAGE...

One page a plain function and one a class. A function without a comment is an error, and so is a page of section 5 that leaves
out a name of the headers that it should explain: so the pages stay whole.
"""

import re
import sys
from itertools import groupby
from pathlib import Path

LIBRARY = "ErrorHandlerDll"
PLAIN_HEADER = "ErrorHandlerDll.h"
CLASS_HEADERS = {"ExceptionHandler": "ExceptionHandler.h", "HalvikException": "HalvikException.h",
                 "StructuredException": "LinuxStructuredException.h"}
SEE_ALSO = ["errorhandlerdll\\-dump", "errorhandlerdll\\-log"]


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("~", "\\(ti").replace("^", "\\(ha")
    return "\\&" + text if text.startswith((".", "'")) else text


LABEL = re.compile(r"  ([A-Za-z]+|\.\.\.) +(?=[^ (])")


def comment_to_troff(lines):
    """Paragraphs flow; indented blocks are lists of labels and their texts, or examples that are kept as they are."""
    troff = []
    for indented, group in groupby(lines, key=lambda line: line.startswith("  ") if line else None):
        block = list(group)
        if indented is None:
            continue
        if indented and LABEL.match(block[0]):
            for line in block:
                label = LABEL.match(line)
                troff += [".TP", f".I {escape(label[1])}"] if label else []
                troff.append(escape(line[label.end():] if label else line.strip()))
            troff.append(".PP")
        elif indented:
            troff += [".PP", ".nf"] + [escape(line) for line in block] + [".fi"]
        else:
            troff += [".PP"] + [escape(line) for line in block]
    return troff


def uncomment(block):
    return [re.sub(r"^ {0,4}// ?", "", line) for line in block.rstrip("\n").split("\n")] if block else []


def clean_declaration(text):
    text = re.sub(r"ERRORHANDLERDLL_PRINTF\([^)]*\)", "", text)
    text = re.sub(r"ERRORHANDLERDLL_NORETURN ", "[[noreturn]] ", text.replace("ERRORHANDLERDLL_API ", ""))
    return re.sub(r"\s+", " ", text).strip().replace(" ;", ";")


def wrap_declaration(text, width=76):
    lines = []
    while len(text) > width and ", " in text[:width]:
        cut = text.rindex(", ", 0, width) + 1
        lines.append(text[:cut])
        text = "        " + text[cut:].strip()
    return lines + [text]


def first_sentence(lines):
    text = re.split(r"[.:;](?:\s|$)", " ".join(lines))[0].replace("`", "")
    return text[0].lower() + text[1:] if text[1:2].islower() else text


def page(name, header, summary, synopsis, sections, version, others):
    out = [f'.TH {name} 3 "" "{LIBRARY} {version}" "{LIBRARY} manual"', ".SH NAME", f"{name} \\- {escape(summary)}",
           ".SH LIBRARY", f"{LIBRARY} (libErrorHandlerDll.so, \\-lErrorHandlerDll)", ".SH SYNOPSIS", ".nf",
           f".B #include <ErrorHandlerDll/{header}>", ".PP"]
    for declaration in synopsis:
        out += [".B \"" + escape(line).replace('"', '\\(dq') + '"' for line in wrap_declaration(declaration)]
    out.append(".fi")
    for title, body in sections:
        out += [f'.SH "{title}"'] + body
    references = sorted(n for n in others if n != name)
    references = [f"{n} (3)" for n in references] + [f"{n} (5)" for n in SEE_ALSO]
    return "\n".join(out + [".SH SEE ALSO"] + [f".BR {r}," for r in references])[:-1] + "\n"


def plain_functions(text):
    """(group comment, comment, name, declaration) of each exported function."""
    group = []
    pattern = re.compile(r"^// ---- .*? -+\n(?://\n)?(?P<group>(?://.*\n)*)"
                         r"|^(?P<comment>(?://.*\n)*)ERRORHANDLERDLL_API (?P<declaration>[^;]*;)", re.M)
    for match in pattern.finditer(text):
        if match["declaration"] is None:
            group = uncomment(match["group"])
            continue
        name = re.search(r"(\w+)\(", clean_declaration(match["declaration"]))[1]
        if not match["comment"]:
            sys.exit(f"generate_man: {name} has no comment")
        yield group, uncomment(match["comment"]), name, clean_declaration(match["declaration"])


def write_functions(include, output, version):
    text = (include / PLAIN_HEADER).read_text(encoding="utf-8")
    conventions = uncomment(text[:text.index("#ifndef")])[2:]
    functions = list(plain_functions(text))
    for group, comment, name, declaration in functions:
        others = {n for g, _, n, _ in functions if g is group}
        sections = [("DESCRIPTION", comment_to_troff(comment)), ("CONVENTIONS", comment_to_troff(conventions))]
        if group:
            sections.insert(1, ("NOTES", comment_to_troff(group)))
        (output / f"{name}.3").write_text(page(name, PLAIN_HEADER, first_sentence(comment), [declaration], sections, version,
                                               others), encoding="utf-8")


def class_members(body):
    """(comment, declaration) of each public member; members under one comment share it."""
    public = body[body.index("public:") + len("public:"):].split("private:")[0]
    for match in re.finditer(r"(?P<comment>(?:^    //.*\n)*)^    (?P<declaration>[^/\s][^;]*;)", public, re.M):
        yield uncomment(match["comment"]), clean_declaration(match["declaration"])


def write_class(include, output, name, header, version):
    text = (include / header).read_text(encoding="utf-8")
    match = re.search(r"^((?://[^\n]*\n)+)class %s\n\{\n(.*?)^\};" % name, text, re.M | re.S)
    if not match:
        sys.exit(f"generate_man: {header} has no class {name} with a comment")
    body = []
    for comment, declaration in class_members(match[2]):
        body += [".PP", ".nf"] + [f'.B "{escape(line)}"' for line in wrap_declaration(declaration)] + [".fi"]
        if comment:
            body += [".RS"] + comment_to_troff(comment) + [".RE"]
    summary = first_sentence(uncomment(text.split("\n")[0]))
    sections = [("DESCRIPTION", comment_to_troff(uncomment(match[1]))), ("MEMBERS", body)]
    content = page(name, header, summary, [f"class {name};"], sections, version, CLASS_HEADERS)
    (output / f"{name}.3").write_text(content, encoding="utf-8")


def fill_pages(include, output, version, pages):
    """What each page must name: levels and strategies, signals."""
    codes = (include / "ErrorCodes.h").read_text(encoding="utf-8")
    signals = re.search(r"// The signal's name: (.*)", (include / CLASS_HEADERS["StructuredException"]).read_text("utf-8"))[1]
    required = {"errorhandlerdll-log": re.findall(r"\b(?:ZR_LOG|LOGGING_STRATEGY)_\w+", codes),
                "errorhandlerdll-dump": re.findall(r'"([^"]+)"', signals)}
    for path in map(Path, pages):
        text = path.read_text(encoding="utf-8")
        if missing := [name for name in required[path.stem] if name not in text]:
            sys.exit(f"generate_man: {path.name} does not speak of {', '.join(missing)}")
        (output / path.name).write_text(text.replace("@VERSION@", version), encoding="utf-8")


def main():
    include, output, version = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
    for section in ("man3", "man5"):
        (output / section).mkdir(parents=True, exist_ok=True)
    write_functions(include, output / "man3", version)
    for name, header in CLASS_HEADERS.items():
        write_class(include, output / "man3", name, header, version)
    fill_pages(include, output / "man5", version, sys.argv[4:])


if __name__ == "__main__":
    main()
