"""Makes functions that only record their calls, one for each function that shmnm.h declares.

    make_recorder.py HEADER SOURCE
"""
import pathlib
import re
import sys

header, source = map(pathlib.Path, sys.argv[1:])
lines = ['#include "recorder.h"', "", '#include "shmnm.h"', ""]
for name, declared in re.findall(r"^SHMNM_API uint32_t (shmnm_\w+)\((.*)\);$", header.read_text(encoding="utf-8"), re.M):
    arguments = [] if declared == "void" else [re.search(r"\w+$", argument)[0] for argument in declared.split(",")]
    parameters = "" if declared == "void" else declared
    answer = ", ".join([f'"{name}"', *arguments])
    lines.append(f"uint32_t {name}({parameters}) {{ return recorder::answer({answer}); }}")
source.write_text("\n".join(lines) + "\n", encoding="utf-8")
