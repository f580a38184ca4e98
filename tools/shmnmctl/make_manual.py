#!/usr/bin/env python3
"""Makes the manual page of shmnmctl from what the command says of itself, so that the two cannot drift.

    make_manual.py SHMNMCTL PAGE
"""
import datetime
import os
import re
import subprocess
import sys
import textwrap


def help_of(tool, *words):
    return subprocess.run([tool, *words, "--help"], capture_output=True, text=True, check=True).stdout


def sections(text):
    """The parts of a help text by their headings; what stands before the first is under an empty one."""
    parts, heading = {"": []}, ""
    for line in text.splitlines():
        found = re.match(r"(\S.*):$", line)
        if found:
            heading = found[1]
            parts[heading] = []
        else:
            parts[heading].append(line)
    return parts


def entries(lines):
    """Names with what is said of them: a name begins in the third column, its text goes on further to the right."""
    found, rest = [], []
    for line in lines:
        match = re.match(r"  (\S.*?)(?:  +(\S.*))?$", line)
        if match:
            found.append([match[1].strip(), match[2] or ""])
        elif line.startswith("   ") and found:
            found[-1][1] = (found[-1][1] + " " + line.strip()).strip()
        elif line.strip():
            rest.append(line)
    return found, rest


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    lines = textwrap.wrap(text, 78, break_long_words=False, break_on_hyphens=False) or [""]
    return "\n".join(re.sub(r"^([.'])", r"\\&\1", line) for line in lines)


def table(items):
    return "".join(f".TP\n.B {roff(name)}\n{roff(text) or '.br'}\n" for name, text in items)


def command(tool, words):
    parts = sections(help_of(tool, *words))
    if any(name.startswith("Subcommands") for name in parts):
        (heading,) = [name for name in parts if name.startswith("Subcommands")]
        return "".join(command(tool, words + [name]) for name, _ in entries(parts[heading])[0])
    usage, what = "", []
    for line in parts[""]:
        if line.startswith("Usage:"):
            usage = line.removeprefix("Usage: ")
        elif line.strip():
            what.append(line.strip())
    page = f".SS {roff(' '.join(words))}\n.B {roff(usage)}\n.PP\n{roff(' '.join(what))}.\n"
    footer = []
    for heading, lines in parts.items():
        if heading in ("", "Exit status"):
            continue
        items, rest = entries(lines)
        page += table(item for item in items if not item[0].startswith("-h,--help"))
        footer += [line for line in rest if not re.match(r"Exit status|3 no process", line)]
    return page + ("".join(f".PP\n{roff(' '.join(footer))}\n") if footer else "")


def main():
    tool, file = sys.argv[1:]
    version = subprocess.run([tool, "--version"], capture_output=True, text=True, check=True).stdout.split()[1]
    seconds = os.environ.get("SOURCE_DATE_EPOCH")
    date = datetime.datetime.fromtimestamp(int(seconds), datetime.timezone.utc).date() if seconds else datetime.date.today()
    parts = sections(help_of(tool))
    commands, _ = entries(parts["Subcommands"])
    options, _ = entries(parts["Options"])
    page = f""".TH SHMNMCTL 1 "{date}" "shmnm {version}" "User Commands"
.SH NAME
shmnmctl \\- see, change, wait on and check the live picture of the cluster
.SH SYNOPSIS
.B shmnmctl
.RI [ OPTION ...]
.I COMMAND
.RI [ ARGUMENT ...]
.SH DESCRIPTION
{roff(parts[""][0])}
.PP
Reading commands take a copy of the region under its lock and change nothing.
Changing commands take the lock, compare the region with this machine's
configuration, and do all that they were asked for or nothing.
.SH OPTIONS
{table(options)}.SH COMMANDS
{"".join(command(tool, [name]) for name, _ in commands)}.SH EXIT STATUS
.TP
.B 0
done, or the answer is yes
.TP
.B 1
the answer is no: not found, the condition does not hold, findings
.TP
.B 2
the command line is wrong
.TP
.B 3
no process holds the region
.TP
.B 4
the lock, or what was waited for, did not come in time
.TP
.B 5
refused, or failed
.PP
.B shmnmctl lock
with a command ends as the command did.
.SH ENVIRONMENT
.TP
.B KZM_INSTALL_PATH
the installation path, below which etc/cluster.xml lies
.TP
.B KZMUTIL_NAMESPACE
stands before the names of all kernel objects
.TP
.BR NO_COLOR ", " COLUMNS
no colours; the width of text that goes to no terminal
"""
    with open(file, "w", encoding="utf-8") as output:
        output.write(page)


if __name__ == "__main__":
    main()
