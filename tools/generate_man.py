#!/usr/bin/env python3
"""Writes the section 3 manual pages from the comments of the public headers, and fills in those written by hand.

  generate_man.py INCLUDE_FOLDER OUTPUT_FOLDER VERSION PAGE...

One page a plain function, one a class and one for the settings. A function without a comment is an error, and so is a page
written by hand that leaves out a name of the headers, or an option, that it should explain: so the pages stay whole.
"""

import re
import sys
from itertools import groupby
from pathlib import Path

LIBRARY = "ErrorHandlerDll"
PLAIN_HEADER = "ErrorHandlerDll.h"
CODES_HEADER = "ErrorCodes.h"
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


def page(name, header, summary, synopsis, sections, version, others, aliases=()):
    names = ", ".join([name, *aliases])
    out = [f'.TH {name} 3 "" "{LIBRARY} {version}" "{LIBRARY} manual"', ".SH NAME", f"{names} \\- {escape(summary)}",
           ".SH LIBRARY", f"{LIBRARY} (libErrorHandlerDll.so, \\-lErrorHandlerDll)", ".SH SYNOPSIS", ".nf",
           f".B #include <ErrorHandlerDll/{header}>", ".PP"]
    for declaration in synopsis:
        out += [".B \"" + escape(line).replace('"', '\\(dq') + '"' for line in wrap_declaration(declaration)]
    out.append(".fi")
    for title, body in sections:
        out += [f'.SH "{title}"'] + body
    references = sorted(n for n in others if n != name)
    references = [f"{n} (3)" for n in references] + [f"{n} (5)" for n in SEE_ALSO] + [f"{LIBRARY} (7)"]
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


def write_page(output, name, text, aliases=()):
    (output / f"{name}.3").write_text(text, encoding="utf-8")
    for alias in aliases:
        (output / f"{alias}.3").write_text(f".so man3/{name}.3\n", encoding="utf-8")


def definition(codes, start):
    """Comment and body of the enumeration or structure that starts with `start`."""
    match = re.search(r"^((?://[^\n]*\n)+)(?:#ifdef __cplusplus\n)?%s[^{]*\{\n(.*?)^\}" % re.escape(start), codes, re.M | re.S)
    if not match:
        sys.exit(f"generate_man: {CODES_HEADER} has no '{start}' with a comment")
    return uncomment(match[1]), match[2]


def values(body):
    """A list of the enumerators with their numbers and comments."""
    troff = []
    for name, number, comment in re.findall(r"^ *(\w+) = (-?\d+),?(?: *// (.*))?$", body, re.M):
        troff += [".TP", f".BR {name} \" ({escape(number)})\"", escape(comment)]
    return [line for line in troff if line] + [".PP"]


def levels(codes):
    comment, body = definition(codes, "enum\n")
    return comment_to_troff(comment) + values(body)


def write_settings(include, output, version):
    codes = (include / CODES_HEADER).read_text(encoding="utf-8")
    comment, body = definition(codes, "typedef struct LoggingSettings")
    strategies, enumerators = definition(codes, "enum ZelvoReaderLoggingStrategy")
    fields = []
    for declaration, remark in re.findall(r"^    ([^;/]+;)(?: *// (.*))?$", body, re.M):
        fields += [".TP", f'.B "{declaration}"', escape(remark) if remark else "see below"]
    sections = [("DESCRIPTION", comment_to_troff(comment) + fields), ("STRATEGIES", comment_to_troff(strategies) +
                                                                      values(enumerators)), ("LEVELS", levels(codes))]
    aliases = ["ZelvoReaderLoggingStrategy"]
    content = page("LoggingSettings", CODES_HEADER, first_sentence(comment), ["typedef struct LoggingSettings LoggingSettings;"],
                   sections, version, ["GetLoggingOptions", "InitialiseLogging", "SetLoggingOptions"], aliases)
    write_page(output, "LoggingSettings", content, aliases)


def write_functions(include, output, version):
    codes = (include / CODES_HEADER).read_text(encoding="utf-8")
    text = (include / PLAIN_HEADER).read_text(encoding="utf-8")
    conventions = uncomment(text[:text.index("#ifndef")])[2:]
    functions = list(plain_functions(text))
    for group, comment, name, declaration in functions:
        others = {n for g, _, n, _ in functions if g is group}
        sections = [("DESCRIPTION", comment_to_troff(comment)), ("CONVENTIONS", comment_to_troff(conventions))]
        if group:
            sections.insert(1, ("NOTES", comment_to_troff(group)))
        if "int level" in declaration:
            sections.insert(1, ("LEVELS", levels(codes)))
        if "LoggingSettings" in declaration:
            others.add("LoggingSettings")
        write_page(output, name, page(name, PLAIN_HEADER, first_sentence(comment), [declaration], sections, version, others))


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
    # Those that are called by their names alone are found by them, too.
    aliases = sorted(set(re.findall(r"^    static ERRORHANDLERDLL_API [^(;]*?(\w+)\(", match[2], re.M))) \
        if name == "ExceptionHandler" else []
    write_page(output, name, page(name, header, summary, [f"class {name};"], sections, version, CLASS_HEADERS, aliases), aliases)


def fill_pages(include, output, version, pages):
    """What each page must name: levels and strategies, signals, options, functions and classes."""
    codes = (include / CODES_HEADER).read_text(encoding="utf-8")
    signals = re.search(r"// The signal's name: (.*)", (include / CLASS_HEADERS["StructuredException"]).read_text("utf-8"))[1]
    options = (Path(__file__).parent / "symbolize_dump.py").read_text("utf-8")
    functions = [name for _, _, name, _ in plain_functions((include / PLAIN_HEADER).read_text("utf-8"))]
    required = {"errorhandlerdll-log": re.findall(r"\b(?:ZR_LOG|LOGGING_STRATEGY)_\w+", codes),
                "errorhandlerdll-dump": re.findall(r'"([^"]+)"', signals),
                "errorhandlerdll-symbolize": re.findall(r'"(--[a-z-]+)"', options),
                LIBRARY: functions + list(CLASS_HEADERS)}
    for path in map(Path, pages):
        text = path.read_text(encoding="utf-8")
        plain = text.replace("\\-", "-")
        if missing := [name for name in required[path.stem] if not re.search(rf"(?<!\w){re.escape(name)}(?!\w)", plain)]:
            sys.exit(f"generate_man: {path.name} does not speak of {', '.join(missing)}")
        folder = output / f"man{path.suffix[1:]}"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / path.name).write_text(text.replace("@VERSION@", version), encoding="utf-8")


def main():
    include, output, version = Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]
    (output / "man3").mkdir(parents=True, exist_ok=True)
    write_functions(include, output / "man3", version)
    write_settings(include, output / "man3", version)
    for name, header in CLASS_HEADERS.items():
        write_class(include, output / "man3", name, header, version)
    fill_pages(include, output, version, sys.argv[4:])


if __name__ == "__main__":
    main()
