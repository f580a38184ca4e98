#!/usr/bin/env python3
"""Makes the manual pages of the library's functions (mdoc, section 3) from the XML that Doxygen writes for the public header.

    make_manual.py XML HEADER EXAMPLE VERSION FOLDER

XML is the folder of Doxygen's XML, EXAMPLE a program to show, FOLDER the folder for the pages, whose old pages are removed. Functions
whose comments begin "As f()" or "otherwise as f()" share the page of f(), and their names are links to it. shmnm(3) says what holds
for all functions, and shmnm_header(3) describes the region's format. It is an error if the header does not describe a function or an
argument.
"""
import datetime
import os
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

LONGEST_LINE = 78
LIKE = re.compile(r"^As (shmnm_\w+)|; otherwise as (shmnm_\w+)")
SHARED_ARGUMENTS = "Arguments that mean the same"


class Undocumented(Exception):
    """The header leaves something out, or uses a form that this program does not know."""


# ---- What Doxygen found. A text is a list of (kind, text): kind is the mdoc macro that marks the text, or empty for plain text. ----


def inline(element):
    """The text in an element, without its tail."""
    found = [("", element.text or "")]
    for child in element:
        text = "".join(child.itertext())
        if child.tag == "computeroutput":
            found.append(("Fa" if re.fullmatch(r"\w+", text) else "Ql", text))
        elif child.tag == "ref":
            kind = "Fn" if text.endswith("()") else "Dv" if text.isupper() else "Vt"
            found.append((kind, text.removesuffix("()")))
        elif child.tag not in ("linebreak", "anchor"):
            raise Undocumented(f"unknown markup {child.tag} in {''.join(element.itertext())!r}")
        found.append(("", child.tail or ""))
    return [(kind, text) for kind, text in found if text]


def plain(text):
    return re.sub(r"\s+", " ", "".join(f"{part}()" if kind == "Fn" else part for kind, part in text)).strip()


class Comment:
    """A description: its paragraphs, lists and tables in their order, and the descriptions of arguments, results and rules."""

    BLOCKS = ("itemizedlist", "verbatim", "parameterlist", "simplesect")

    def __init__(self, definition):
        self.brief = [part for para in definition.findall("briefdescription/para") for part in inline(para)]
        self.blocks, self.arguments, self.results, self.rules = [], {}, [], {}
        for para in definition.findall("detaileddescription/para"):
            self.read(para, self.blocks)

    def read(self, para, blocks):
        text = ElementTree.Element("para")
        text.text = para.text
        for child in para:
            if child.tag not in self.BLOCKS:
                text.append(child)
                continue
            self.add(text, blocks)
            text = ElementTree.Element("para")
            text.text = child.tail
            if child.tag == "itemizedlist":
                blocks.append(("list", [inline(item) for item in child.findall("listitem/para")]))
            elif child.tag == "verbatim":
                blocks.append(("verbatim", child.text))
            elif child.tag == "parameterlist":
                self.read_items(child)
            elif child.get("kind") == "note":
                for note in child.findall("para"):
                    self.read(note, blocks)
            else:
                title = plain(inline(child.find("title"))) if child.find("title") is not None else child.get("kind")
                self.rules[title] = inline(child.find("para"))
        self.add(text, blocks)

    @staticmethod
    def add(text, blocks):
        text = inline(text)
        if plain(text):
            blocks.append(("text", text))

    def read_items(self, items):
        for item in items.findall("parameteritem"):
            text = inline(item.find("parameterdescription/para"))
            for name in item.findall("parameternamelist/parametername"):
                if items.get("kind") == "param":
                    self.arguments[name.text] = (name.get("direction"), text)
                else:
                    self.results.append((name.text, text))

    def take_shared_arguments(self):
        """Takes out the descriptions of arguments that mean the same everywhere, by name and direction."""
        found, rest = {}, []
        for kind, block in self.blocks:
            if kind == "text" and plain(block).startswith(SHARED_ARGUMENTS):
                continue
            if kind == "list" and block[0][0][0] == "Fa":
                for item in block:
                    names = [text for kind, text in item if kind == "Fa"]
                    begin = max(at for at, part in enumerate(item) if part[0] == "Fa") + 1
                    if plain(item[begin:]).startswith(": (in) "):
                        taken, given = plain(item[begin:]).removeprefix(": (in) ").split("; (out) ")
                        found |= {(name, "in"): [("", taken)] for name in names} | {(name, "out"): [("", given)] for name in names}
                    else:
                        text = [("", item[begin][1].removeprefix(":").lstrip())] + item[begin + 1 :]
                        found |= {(name, direction): text for name in names for direction in ("in", "out")}
            else:
                rest.append((kind, block))
        self.blocks = rest
        return found

    def take_named_items(self):
        """Takes out the list whose items begin with a word and a colon."""
        found, rest = {}, []
        for kind, block in self.blocks:
            if kind == "list" and re.match(r"[A-Z]\w+: ", block[0][0][1]):
                for item in block:
                    name, text = item[0][1].split(": ", 1)
                    found[name] = [("", text)] + item[1:]
            else:
                rest.append((kind, block))
        self.blocks = rest
        return found


class Function:
    def __init__(self, definition, group):
        self.name, self.group, self.comment = definition.findtext("name"), group, Comment(definition)
        self.type = definition.findtext("type")
        self.declared = [(inline(p.find("type")), p.findtext("declname")) for p in definition.findall("param")]
        self.declared = [(plain(type), name) for type, name in self.declared if name]
        self.like = next((name for match in LIKE.finditer(plain(self.comment.brief)) for name in match.groups() if name), None)
        if not plain(self.comment.brief).endswith("."):
            raise Undocumented(f"{self.name}: its comment must begin with a sentence")


class Group:
    def __init__(self, compound, everywhere):
        self.name, self.title, self.comment = compound.findtext("compoundname"), compound.findtext("title"), Comment(compound)
        self.shared = everywhere | self.comment.take_shared_arguments()
        self.records = [record.text for record in compound.findall("innerclass")]
        self.functions = [Function(member, self) for member in compound.iterfind("sectiondef/memberdef[@kind='function']")]


class Header:
    def __init__(self, folder, file):
        index = ElementTree.parse(folder / "index.xml").getroot()
        read = {(c.get("kind"), c.findtext("name")): ElementTree.parse(folder / f"{c.get('refid')}.xml").find("compounddef") for c in index}
        self.text = file.read_text(encoding="utf-8")
        self.comment = Comment(read["file", file.name])
        shared = self.comment.take_shared_arguments()
        self.rules = self.comment.take_named_items()
        groups = {name: Group(compound, shared) for (kind, name), compound in read.items() if kind == "group"}
        self.groups = sorted(groups.values(), key=lambda group: self.text.index(f"@defgroup {group.name} "))
        self.functions = {function.name: function for group in self.groups for function in group.functions}
        self.records = {name: Comment(compound) for (kind, name), compound in read.items() if kind == "struct"}
        values = [v for compound in read.values() for v in compound.iterfind("sectiondef/memberdef[@kind='enum']/enumvalue")]
        self.results = {v.findtext("name"): (int(v.findtext("initializer").strip(" =")), [("", plain(Comment(v).brief).strip('"'))]) for v in values}
        self.pages = {function.name: [function] for function in self.functions.values() if not function.like}
        for function in self.functions.values():
            if function.like:
                self.pages[function.like].append(function)
        self.page_of = {function.name: name for name, functions in self.pages.items() for function in functions}

    def record(self, name):
        return re.search(rf"^typedef struct {name} \{{.*?^\}} {name};$", self.text, re.M | re.S)[0].replace("/**< ", "/* ")


# ---- mdoc ----


def escaped(text):
    return text.replace("\\", "\\e").replace("^", "\\(ha").replace("~", "\\(ti")


class Page:
    """One manual page."""

    def __init__(self, header, title, version, names, what):
        self.header, self.lines, self.mentioned = header, [], set()
        self.names = names
        self.macro("Dd", date())
        self.macro("Dt", title.upper(), "3")
        self.macro("Os", f"shmnm {version}")
        self.macro("Sh", "NAME")
        for name in names[:-1]:
            self.macro("Nm", name, ",")
        self.macro("Nm", names[-1])
        self.macro("Nd", what)

    def macro(self, *words):
        self.lines.append("." + " ".join(words))

    def paragraph(self):
        """Adds space before what follows, unless a heading or a list has added it."""
        if not re.match(r"\.(S[hs]|Pp|El$)", self.lines[-1]):
            self.macro("Pp")

    def marked(self, kind, text):
        """The macro for a marked part of a text."""
        if kind == "Fn" and text not in self.names:
            self.mentioned.add(self.header.page_of[text])
            return f"Xr {text} 3"
        if kind == "Fn" and text in self.names:
            return f"Fn {text}"
        return f'{kind} "{escaped(text)}"' if " " in text else f"{kind} {escaped(text)}"

    def fill(self, text):
        """Adds text as filled lines: each sentence begins a line, and each marked part has its own line."""
        parts, joined = [], ""
        for kind, part in text:
            for at, piece in enumerate(re.split(r"(SHMNM_[A-Z]\w*[A-Z]\b)", part) if not kind else [part]):
                if not kind and (at % 2 == 0 or piece not in self.header.results):
                    joined += piece
                else:
                    joined += f"\1{len(parts)}\2"
                    parts.append(self.marked(kind or "Dv", piece))
        line, lines = "", []
        for word in joined.split():
            if "\1" in word:
                lines += [line, self.marked_word(word, parts)]
                line = ""
            else:
                if line and len(line) + 1 + len(escaped(word)) > LONGEST_LINE:
                    lines.append(line)
                    line = ""
                line = f"{line} {escaped(word)}".lstrip()
                if re.search(r"[.?!][)\"]*$", word):
                    lines.append(line)
                    line = ""
        self.lines += [re.sub(r"^'", r"\&'", line) for line in lines + [line] if line]

    @staticmethod
    def marked_word(word, parts):
        before, number, after = re.fullmatch("([^\1]*)\1([0-9]+)\2(.*)", word).groups()
        line = "." + (f"Pf {before} " if before else "") + parts[int(number)]
        while after and after[0] in ".,:;)?!":
            line += f" {after[0]}"
            after = after[1:]
        if "\1" in after:
            raise Undocumented(f"there must be a space between two marked words: {parts}")
        return line + (f" Ns {escaped(after)}" if after else "")

    def blocks(self, blocks):
        for kind, block in blocks:
            if kind == "text":
                self.paragraph()
                self.fill(block)
            elif kind == "verbatim":
                self.literal(block)
            else:
                self.macro("Bl", "-bullet")
                for item in block:
                    self.macro("It")
                    self.fill(item)
                self.macro("El")

    def literal(self, text):
        self.macro("Bd", "-literal")
        self.lines += [re.sub(r"^([.'])", r"\\&\1", escaped(line)).replace("-", "\\-") for line in text.rstrip().split("\n")]
        self.macro("Ed")

    def tagged(self, items):
        """Adds a list of (tag as a macro, text)."""
        self.macro("Bl", "-tag", "-width", "Ds")
        for tag, text in items:
            self.macro("It", tag)
            self.fill(text)
        self.macro("El")

    def see_also(self, pages):
        self.macro("Sh", "SEE ALSO")
        pages = sorted(pages)
        for section, name in pages:
            self.macro("Xr", name, section, *([","] if (section, name) != pages[-1] else []))

    def write(self, folder):
        (folder / f"{self.names[0]}.3").write_text("\n".join(self.lines) + "\n", encoding="utf-8")
        for name in self.names[1:]:
            (folder / f"{name}.3").symlink_to(f"{self.names[0]}.3")


def date():
    seconds = os.environ.get("SOURCE_DATE_EPOCH")
    day = datetime.datetime.fromtimestamp(int(seconds), datetime.timezone.utc) if seconds else datetime.datetime.now()
    return f"{day:%B} {day.day}, {day.year}"


def begun(text, change):
    """The text with its first letter changed, unless it begins with a name."""
    (kind, first), *rest = text
    return text if kind else [(kind, change(first[:1]) + first[1:]), *rest]


def sentence(text):
    """The text as a whole sentence."""
    *rest, (kind, last) = text
    if not kind and not last.strip():
        return sentence(rest)
    if kind:
        text = text + [("", ".")]
    elif not last.rstrip().endswith("."):
        text = rest + [("", last.rstrip() + ".")]
    return begun(text, str.upper)


def decapitalized(text):
    return begun(text, str.lower)


def in_a_list(function):
    """What a function does, for a list that also contains the function that it is like."""
    (kind, first), *rest = function.comment.brief
    own, like, _ = first.partition("; otherwise as ")
    return [(kind, f"{own}.")] if like else [(kind, first), *rest]


def whole(comment):
    """A whole comment, which must be plain text, in one paragraph."""
    if any(kind != "text" for kind, _ in comment.blocks):
        raise Undocumented(f"the comment of a function that is like another function must be plain text: {plain(comment.brief)}")
    return [part for text in [comment.brief] + [block for _, block in comment.blocks] for part in text + [("", " ")]]


def synopsis(page):
    page.macro("Sh", "LIBRARY")
    page.lines.append("The live picture of a machine's failover cluster")
    page.macro("Pq", "libkzmshmnm", ",", "\\-lkzmshmnm")
    page.macro("Sh", "SYNOPSIS")
    page.macro("In", "shmnm.h")


def arguments(functions):
    """The descriptions of the arguments in the order of their declarations: [names, direction, text]."""
    model, found = functions[0], []
    for function in functions:
        for type, name in function.declared:
            told = {**model.comment.arguments, **function.comment.arguments}
            written = type.endswith("*") and not type.startswith("const")
            shared = model.group.shared | function.group.shared
            direction = "out" if written else "in"
            direction, text = told.get(name, (direction, shared.get((name, direction))))
            if text is None:
                raise Undocumented(f"{function.name}: no description of {name}")
            if ("out" in direction) != written:
                raise Undocumented(f"{function.name}: {name} is {direction}, but it is declared as {type}")
            same = next((entry for entry in found if entry[1:] == [direction, text]), None)
            if not same:
                found.append([[name], direction, text])
            elif name not in same[0]:
                same[0].append(name)
        for name in function.comment.arguments:
            if name not in dict((name, type) for type, name in function.declared):
                raise Undocumented(f"{function.name} has no argument {name}")
    return found


def rule(header, functions, name):
    """The text of a rule for these functions: their own, their group's, or the one that holds everywhere."""
    model = functions[0]
    return model.comment.rules.get(name) or model.group.comment.rules.get(name) or header.rules.get(name)


def function_page(header, functions, version):
    model = functions[0]
    what = plain(decapitalized(model.comment.brief)).rstrip(".")
    page = Page(header, model.name, version, [function.name for function in functions], escaped(what))
    synopsis(page)
    for function in functions:
        page.macro("Ft", function.type)
        page.macro("Fo", function.name)
        for type, name in function.declared or [("void", "")]:
            page.macro("Fa", f'"{type}{"" if type.endswith("*") or not name else " "}{name}"')
        page.macro("Fc")

    page.macro("Sh", "DESCRIPTION")
    page.macro("Fn", model.name)
    page.fill(decapitalized(model.comment.brief))
    page.blocks(model.comment.blocks)
    if functions[1:]:
        page.tagged((f"Fn {function.name}", whole(function.comment)) for function in functions[1:])
    found = arguments(functions)
    if found:
        page.macro("Ss", "Arguments")
        page.tagged((f"Fa {' , '.join(names)} Pq {direction.replace('inout', 'in, out')}", sentence(text)) for names, direction, text in found)
    for group in dict.fromkeys(function.group for function in functions):
        if plain(group.comment.brief):
            page.macro("Ss", group.title)
            page.fill(group.comment.brief + [("", " ")])
            first, *rest = group.comment.blocks or [("text", [])]
            if first[0] == "text":
                page.fill(first[1])
                page.blocks(rest)
            else:
                page.blocks(group.comment.blocks)
    page.macro("Ss", "Locks and threads")
    page.fill(sentence(rule(header, functions, "Locks")))
    mentioned = set(page.mentioned)
    page.macro("Pp")
    page.fill(sentence(rule(header, functions, "Threads")))
    page.mentioned = mentioned

    page.macro("Sh", "RETURN VALUES")
    results = list(model.comment.results)
    if not rule(header, functions, "pre"):
        results.insert(0, ("SHMNM_ERR_NOTINIT", header.results["SHMNM_ERR_NOTINIT"][1]))
    results += [result for function in functions[1:] for result in function.comment.results if result not in results]
    if results:
        page.lines.append("Each function returns" if functions[1:] else "The function returns")
        page.macro("Dv", "SHMNM_OK", "Pq", "0")
        page.lines.append("or:")
        page.tagged((f"Dv {name} Pq {header.results[name][0]}", sentence(text)) for name, text in results)
        page.macro("Pp")
        page.lines.append("Unless stated otherwise, a failure")
        page.fill(header.rules["Failure"])
    else:
        page.lines.append("Each function always returns" if functions[1:] else "The function always returns")
        page.macro("Dv", "SHMNM_OK", "Pq", "0", ".")
    related = {header.page_of[other.name] for function in functions for other in function.group.functions} | page.mentioned
    page.see_also({("3", name) for name in related - {model.name}} | {("3", "shmnm")})
    return page


def overview(header, example, version):
    page = Page(header, "shmnm", version, ["shmnm"], "live picture of a machine's failover cluster in shared memory")
    synopsis(page)
    page.macro("Pp")
    page.lines.append("cc program.c $(pkg-config \\-\\-cflags \\-\\-libs shmnm)")
    page.macro("Sh", "DESCRIPTION")
    page.fill(header.comment.brief)
    page.blocks(header.comment.blocks)
    page.tagged((f"Sy {name}", sentence(text)) for name, text in header.rules.items())
    for group in header.groups:
        if group.functions:
            page.macro("Ss", group.title)
            page.macro("Bl", "-tag", "-width", "Ds", "-compact")
            for function in group.functions:
                page.macro("It", "Xr", function.name, "3")
                page.fill(in_a_list(function))
            page.macro("El")
    page.macro("Sh", "RETURN VALUES")
    page.tagged((f"Dv {name} Pq {value}", sentence(text)) for name, (value, text) in header.results.items())
    page.macro("Sh", "EXAMPLES")
    page.literal(example)
    page.see_also({("3", "shmnm_header"), ("1", "shmnmctl")} | {("3", header.page_of[name]) for name in ("shmnm_create", "shmnm_attach", "shmnm_rwlock")})
    return page


def format_page(header, version):
    (group,) = [group for group in header.groups if group.records]
    page = Page(header, group.records[0], version, group.records, "format of the region that the processes share")
    synopsis(page)
    page.macro("Sh", "DESCRIPTION")
    page.fill(group.comment.brief)
    page.blocks(group.comment.blocks)
    for name in group.records:
        page.macro("Ss", name)
        page.fill(header.records[name].brief)
        page.blocks(header.records[name].blocks)
        page.literal(header.record(name))
    page.see_also({("3", "shmnm"), ("3", "shmnm_dump")})
    return page


def main():
    xml, file, example, version, folder = sys.argv[1:]
    header, folder = Header(pathlib.Path(xml), pathlib.Path(file)), pathlib.Path(folder)
    pages = [function_page(header, functions, version) for functions in header.pages.values()]
    pages += [overview(header, pathlib.Path(example).read_text(encoding="utf-8"), version), format_page(header, version)]
    folder.mkdir(parents=True, exist_ok=True)
    for stale in folder.glob("*.3"):
        stale.unlink()
    for page in pages:
        page.write(folder)


if __name__ == "__main__":
    try:
        main()
    except Undocumented as error:
        sys.exit(f"make_manual.py: {error}")
