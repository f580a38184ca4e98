#!/usr/bin/env python3
"""Makes a source file of the page: one document that holds its styles and its scripts, and the policy that admits them.

    make_page.py FOLDER SOURCE

FOLDER holds index.html and the scripts and styles that it names. A browser runs only scripts and uses only styles whose
hashes the policy names.
"""
import base64
import hashlib
import pathlib
import re
import sys


def hash_of(text):
    return "'sha256-" + base64.b64encode(hashlib.sha256(text.encode()).digest()).decode() + "'"


def literal(text):
    """The bytes as string literals of C++, none longer than compilers take."""
    data = text.encode()
    lines = []
    for begin in range(0, len(data), 80):
        part = "".join(f"\\{byte:03o}" if byte < 32 or byte > 126 or byte in b'"\\?' else chr(byte) for byte in data[begin : begin + 80])
        lines.append(f'    "{part}"')
    return "\n".join(lines)


def inlined(page, folder, pattern, tag):
    """The page with each file that a tag names in the tag's place, and the hashes of these files."""
    hashes = []

    def inline(found):
        text = "\n" + (folder / found[1]).read_text(encoding="utf-8")
        if f"</{tag}" in text.lower():
            sys.exit(f"make_page.py: {found[1]} must not contain </{tag}")
        hashes.append(hash_of(text))
        return f"<{tag}>{text}</{tag}>"

    page = re.sub(pattern, inline, page)
    if not hashes:
        sys.exit(f"make_page.py: index.html names no {tag}")
    return page, " ".join(hashes)


def main():
    folder, source = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    page = (folder / "index.html").read_text(encoding="utf-8")
    page, styles = inlined(page, folder, r'<link rel="stylesheet" href="([^"]*)">', "style")
    page, scripts = inlined(page, folder, r'<script src="([^"]*)"></script>', "script")
    policy = (
        f"default-src 'none'; script-src {scripts}; style-src {styles}; connect-src 'self'; img-src data:; "
        "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'"
    )
    source.write_text(
        f"""#include "page.h"

namespace shmnmweb {{

namespace {{
constexpr char text[] =
{literal(page)};
}}  // namespace

const std::string_view page(text, sizeof text - 1);
const char* const page_policy =
{literal(policy)};

}}  // namespace shmnmweb
"""
    )


if __name__ == "__main__":
    main()
