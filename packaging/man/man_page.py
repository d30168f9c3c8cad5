#!/usr/bin/env python3
"""Writes a manual page from a program's --help text, so that the page and
--help cannot disagree: the help texts in the code are the one source.

  man_page.py PROGRAM NAME SECTION VERSION SUMMARY OUTPUT [--commands]

The help text's layout: a "usage:" line, paragraphs, and indented lists
under a line that ends with ":" (entries at two spaces, "TERM  description",
continued by lines indented further). A paragraph beginning "Exit status:",
"Environment:", "Files:", "Services:" or "See also:" becomes that section of
the page. With --commands, every command that "PROGRAM --help" lists under
"commands:" gets a subsection from "PROGRAM COMMAND --help".
"""
import datetime
import os
import re
import subprocess
import sys

SECTIONS = ("Exit status", "Environment", "Files", "Services", "See also")


def help_text(argv):
    env = dict(os.environ, SORVEL_LOG_LEVEL="quiet", LC_ALL="C", LANGUAGE="en")
    return subprocess.run(argv + ["--help"], check=True, capture_output=True, text=True,
                          env=env).stdout


def esc(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def blocks(text):
    """Paragraphs and lists: ("usage", lines), ("list", heading, entries),
    ("para", lines)."""
    out, lines = [], text.rstrip("\n").split("\n")
    i = 0
    while i < len(lines):
        line = lines[i]
        if not line.strip():
            i += 1
        elif line.startswith("usage: "):
            usage = [line[len("usage: "):]]
            i += 1
            while i < len(lines) and lines[i].startswith(" ") and lines[i].strip():
                usage.append(lines[i].strip())
                i += 1
            out.append(("usage", usage))
        elif line.startswith("  ") or (line.endswith(":") and i + 1 < len(lines)
                                       and lines[i + 1].startswith("  ")):
            heading = None
            if not line.startswith(" "):
                heading, i = line[:-1], i + 1
            start = i
            while i < len(lines) and lines[i].startswith("  "):
                i += 1
            listed = lines[start:i]
            # The description column: where the continuation lines start.
            indents = [len(l) - len(l.lstrip()) for l in listed]
            column = max(set(n for n in indents if n >= 4), key=indents.count, default=0)
            entries = []
            for entry, indent in zip(listed, indents):
                if indent >= 4 and entries:
                    entries[-1][1].append(entry.strip())
                    continue
                if column and len(entry) > column and entry[column - 2:column] == "  " \
                        and entry[column] != " " and entry[:column].strip():
                    term, desc = entry[:column], entry[column:]
                else:
                    term, _, desc = entry.strip().partition("  ")
                entries.append((term.strip(), [desc.strip()] if desc.strip() else []))
            out.append(("list", heading, entries))
        else:
            para = []
            while i < len(lines) and lines[i].strip() and not lines[i].startswith("  "):
                para.append(lines[i])
                i += 1
                if para[-1].endswith(":") and i < len(lines) and lines[i].startswith("  "):
                    break
            if para[-1].endswith(":") and i < len(lines) and lines[i].startswith("  "):
                i -= 1  # the heading of the list that follows
                para.pop()
            if para:
                out.append(("para", para))
    return out


def render(parsed, out, top, command=None):
    """Writes the blocks; `top`: the page's own help (sections allowed)."""
    for block in parsed:
        if block[0] == "usage":
            if top:
                out.append(".SH SYNOPSIS")
            if top:
                out += [".nf"] + ["\\fB" + esc(u) + "\\fR" for u in block[1]] + [".fi"]
            else:
                out += [".PP", "\\fB" + esc(" ".join(block[1])) + "\\fR"]
            if top:
                out.append(".SH DESCRIPTION")
        elif block[0] == "list":
            _, heading, entries = block
            if heading and top and heading.lower() in ("options", "commands"):
                out.append(".SH " + heading.upper())
            elif heading:
                out += [".PP", esc(heading) + ":"]
            for term, desc in entries:
                out += [".TP", "\\fB" + esc(term) + "\\fR", esc(" ".join(desc)) if desc else ""]
        else:
            text = " ".join(l.strip() for l in block[1])
            name = next((s for s in SECTIONS if text.startswith(s + ":")), None)
            if name and top:
                out += [".SH " + name.upper(), ".PP", esc(text[len(name) + 1:].strip())]
            elif name:
                out += [".PP", "\\fB" + esc(name) + ":\\fR " + esc(text[len(name) + 1:].strip())]
            else:
                out += [".PP", esc(text)]


def main():
    args = sys.argv[1:]
    commands = "--commands" in args
    args = [a for a in args if a != "--commands"]
    program, name, section, version, summary, output = args
    stamp = os.environ.get("SOURCE_DATE_EPOCH")
    date = datetime.datetime.fromtimestamp(int(stamp), datetime.timezone.utc) if stamp \
        else datetime.datetime.now(datetime.timezone.utc)
    out = ['.\\" Generated from "%s --help"; do not edit.' % name,
           '.TH %s %s "%s" "%s %s" "User Commands"' % (name.upper(), section,
                                                     date.strftime("%Y-%m-%d"), name, version),
           ".nh", ".ad l", ".SH NAME", "%s \\- %s" % (name, esc(summary))]
    top = help_text([program])
    parsed = blocks(top)
    # The sections of the page's own help come after the commands.
    tail = [b for b in parsed if b[0] == "para" and any(
        " ".join(b[1]).startswith(s + ":") for s in SECTIONS)]
    render([b for b in parsed if b not in tail], out, True)
    if commands:
        listed = next((b[2] for b in parsed if b[0] == "list" and b[1] == "commands"), [])
        for term, _ in listed:
            out.append('.SS "%s %s"' % (name, esc(term)))
            render(blocks(help_text([program, term])), out, False, term)
    render(tail, out, True)
    with open(output, "w") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
