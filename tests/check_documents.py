#!/usr/bin/env python3
"""Checks that the documents agree with one another: check_documents.py ROOT
docs/protocol.md has the tables of options and commands; the manual page and the README for Windows repeat them. Every link
has to lead to a file, and to a heading where it names one."""
import re
import sys
from pathlib import Path

problems = []


def expect_same(what, expected, found):
    if expected != found:
        problems.append(f"{what}: {found}, but docs/protocol.md has {expected}")


def section(text, begin, end):
    """The text between two lines; without a line like the second one, up to the end."""
    found = re.search(rf"^{begin}\n(.*?)(^{end}|\Z)", text, re.MULTILINE | re.DOTALL)
    if not found:
        sys.exit(f"no section {begin}")
    return found[1]


def protocol_rows(text, header):
    """Usage and last cell of each row of the table with that header."""
    rows = re.findall(r"^\| (`.*?`) \|.*\| (.*?) ?\|$", section(text, rf"\| {header} \|[^\n]*\n\|[-|]+", "\n"), re.MULTILINE)
    return [(usage.replace("`", ""), last.strip("` ")) for usage, last in rows]


def manual_page(path):
    """The page without its macros: the line behind each .TP begins with a tab."""
    text = path.read_text()
    text = re.sub(r"^\.TP\n\.B[IR]? (.*)$", lambda entry: "\t" + re.sub(r'" ?| "', "", entry[1]), text, flags=re.MULTILINE)
    for roff, plain in (r"\-", "-"), (r"\e", "\\"), (r"\fI", ""), (r"\fR", ""), (r"\(lq", ""), (r"\(rq", ""):
        text = text.replace(roff, plain)
    return text


def check_tables(root):
    protocol = (root / "docs/protocol.md").read_text()
    options = protocol_rows(protocol, "option")
    commands = [usage for usage, _ in protocol_rows(protocol, "command")]
    lines = [usage for usage, _ in protocol_rows(protocol, "line")]
    manual = manual_page(root / "packaging/linux/ZIQBLEConnect.1")
    windows = (root / "packaging/windows/README.txt").read_text()
    for name, text, option_list, command_list, entry in (
            ("the manual page", manual, section(manual, ".SH OPTIONS", r"\.SH"), section(manual, ".SH COMMANDS", r"\.SH"),
             r"^\t(.*)$"),
            ("the README for Windows", windows, section(windows, "Options\n-+", "Commands"),
             section(windows, "Commands\n-+", r"A client"), r"^  (\S.*?)  ")):
        expect_same(f"options of {name}", [usage for usage, _ in options], re.findall(entry, option_list, re.MULTILINE))
        expect_same(f"commands of {name}", commands, re.findall(entry, command_list, re.MULTILINE))
        for wanted in [default for _, default in options if "\\" in default] + lines:
            if wanted not in text:
                problems.append(f"{name} does not have {wanted}")


def anchors(document):
    headings = re.findall(r"^#+ (.*)$", document.read_text(), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_links(root):
    for document in [root / "README.md", *root.glob("docs/*.md")]:
        for target in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
            path, _, anchor = target.partition("#")
            file = document.parent / path if path else document
            if not file.exists() or (anchor and anchor not in anchors(file)):
                problems.append(f"{document.name}: a link to nothing: {target}")


def main(root):
    check_tables(root)
    check_links(root)
    if (root / "docs/example_client.py").read_text() not in (root / "README.md").read_text():
        problems.append("README.md shows another client than docs/example_client.py")
    sys.exit("\n".join(problems) or 0)


main(Path(sys.argv[1]))
