#!/usr/bin/env python3
"""Makes a source file of the page: one document that holds its style and its script, and the policy that admits them.

    make_page.py FOLDER SOURCE

FOLDER holds index.html, page.css and page.js. A browser runs only the script and uses only the style whose hashes the
policy names.
"""
import base64
import hashlib
import pathlib
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


def main():
    folder, source = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    page = (folder / "index.html").read_text(encoding="utf-8")
    style = "\n" + (folder / "page.css").read_text(encoding="utf-8")
    script = "\n" + (folder / "page.js").read_text(encoding="utf-8")
    for mark, tag, text in (
        ('<link rel="stylesheet" href="page.css">', "style", style),
        ('<script src="page.js"></script>', "script", script),
    ):
        if page.count(mark) != 1:
            sys.exit(f"make_page.py: index.html must have {mark} once")
        if f"</{tag}" in text.lower():
            sys.exit(f"make_page.py: the {tag} must not contain </{tag}")
        page = page.replace(mark, f"<{tag}>{text}</{tag}>")
    policy = (
        f"default-src 'none'; script-src {hash_of(script)}; style-src {hash_of(style)}; connect-src 'self'; img-src data:; "
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
