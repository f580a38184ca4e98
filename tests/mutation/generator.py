"""Writes a copy of a C++ source in which every mutant can be chosen when the program runs.

Each mutated expression becomes one that asks mutants::on(NUMBER), see mutants.h. No line is added, so messages and records of the
copy have the original's line numbers. Places that cannot be chosen later, or where nobody could tell, are counted by reason.
"""
import collections
import os
import re
import subprocess

from clang import cindex
from clang.cindex import CursorKind as Kind, TypeKind

# Original operator: name in mutants.h. The second table: what replaces it.
NAMES = {'<': 'lt', '<=': 'le', '>': 'gt', '>=': 'ge', '==': 'eq', '!=': 'ne', '+': 'plus', '-': 'minus', '*': 'times', '/': 'over',
         '%': 'rest', '&': 'bit_and', '|': 'bit_or', '^': 'bit_xor', '<<': 'left', '>>': 'right'}
INSTEAD = {'<': ('<=', '>='), '<=': ('<', '>'), '>': ('>=', '<='), '>=': ('>', '<'), '==': ('!=',), '!=': ('==',), '+': ('-',),
           '-': ('+',), '*': ('/',), '/': ('*',), '%': ('*',), '&': ('|',), '|': ('&',), '^': ('|',), '<<': ('>>',), '>>': ('<<',)}
ASSIGNMENTS = {'+=': '-=', '-=': '+=', '*=': '/=', '/=': '*=', '&=': '|=', '|=': '&=', '<<=': '>>=', '>>=': '<<='}
COMPARISONS = ('<', '<=', '>', '>=', '==', '!=')
FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.CONVERSION_FUNCTION, Kind.FUNCTION_TEMPLATE)
TRANSPARENT = (Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR)
CONSTANT, MACRO, REFUSED, SAME = 'the compiler needs a constant', 'in a macro', 'lines refused by the compiler', 'returns 0 already'
ENDING = 'ends a function that must not return'
NUMBERS = (TypeKind.BOOL, TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG,
           TypeKind.SHORT, TypeKind.USHORT, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.UCHAR)


class Mutant:
    """One change: `old` at `line` and `column` becomes `new`."""

    def __init__(self, file, function, line, column, old, new, text, number):
        self.file, self.function, self.line, self.column = file, function, line, column
        self.old, self.new, self.text, self.number = old, new, text, number

    def change(self):
        return f'{self.old} -> {self.new}'

    def key(self):
        return f'{self.file} | {self.function} | {self.text} | {self.column} | {self.change()}'


class Source:
    def __init__(self, path, name, arguments):
        self.path, self.name = path, name
        with open(path, 'rb') as file:
            self.bytes = file.read()
        self.lines = self.bytes.decode().split('\n')
        self.mutants, self.left_out = [], collections.Counter()
        self.barred = set()  # lines on which the compiler refuses a mutant
        unit = cindex.Index.create().parse(path, arguments, options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        self.unit = unit  # the cursors do not keep it
        errors = [str(one) for one in unit.diagnostics if one.severity >= cindex.Diagnostic.Error]
        if errors:
            raise SystemExit(f'scripts/mutate: clang cannot read {name}:\n' + '\n'.join(errors))
        self.top = [one for one in unit.cursor.get_children() if self.is_here(one)]
        self.macros = [self.range(one) for one in self.top if one.kind == Kind.MACRO_INSTANTIATION and self.slice(*self.range(one)).endswith(')')]

    def is_here(self, cursor):
        return cursor.location.file is not None and cursor.location.file.name == self.path

    def range(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def slice(self, begin, end):
        return self.bytes[begin:end].decode()

    # -- the copy

    def mutated(self, first):
        """The copy; numbers the mutants from `first` on."""
        self.mutants, self.left_out, self.next = [], collections.Counter({REFUSED: len(self.barred)}), first
        edits = []
        self.functions(self.top, edits)
        return self.apply(0, len(self.bytes), edits)

    def apply(self, begin, end, edits):
        text, at = '', begin
        for start, stop, new in sorted(edits):
            text += self.slice(at, start) + new
            at = stop
        return text + self.slice(at, end)

    def functions(self, cursors, edits):
        for child in cursors:
            if child.kind in FUNCTIONS and child.is_definition():
                body = [one for one in child.get_children() if one.kind in (Kind.COMPOUND_STMT, Kind.CXX_TRY_STMT)]
                head = self.slice(child.extent.start.offset, body[0].extent.start.offset) if body else ''
                if re.search(r'\b(constexpr|consteval)\b', head):
                    self.count(child)
                elif body:
                    self.function = child.spelling
                    self.result = child.result_type if not re.search(r'\bauto\b', head) else None
                    self.ending = self.ending_of(child, body[0])
                    self.visit(body[0], edits, child)
            elif child.kind in (Kind.NAMESPACE, Kind.LINKAGE_SPEC, Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE, Kind.UNEXPOSED_DECL):
                self.functions(child.get_children(), edits)

    def ending_of(self, function, body):
        """Where the last statement of a [[noreturn]] function is: what the function does without it is undefined."""
        attributes = [one for one in function.get_children() if one.kind == Kind.UNEXPOSED_ATTR]
        statements = list(body.get_children())
        if not statements or not any(token.spelling == 'noreturn' for one in attributes for token in one.get_tokens()):
            return None
        return self.range(statements[-1])

    def count(self, cursor, reason=CONSTANT):
        """Counts what would have been mutants."""
        for one in cursor.walk_preorder():
            if one.kind in (Kind.INTEGER_LITERAL, Kind.BINARY_OPERATOR, Kind.CXX_BOOL_LITERAL_EXPR):
                self.left_out[reason] += 1

    # -- walks; each appends (begin, end, text) to edits

    def children(self, cursor, edits):
        for child in cursor.get_children():
            self.visit(child, edits, cursor)

    def text(self, cursor):
        """The text of an expression with its own mutants in it."""
        edits = []
        self.visit(cursor, edits, None)
        return self.apply(*self.range(cursor), edits)

    def new(self, at, old, new):
        line = self.bytes.count(b'\n', 0, at) + 1
        column = at - (self.bytes.rfind(b'\n', 0, at) + 1) + 1
        text = self.lines[line - 1]
        # The place within the line, counted from its first character: indentation may change.
        mutant = Mutant(self.name, self.function, line, column - (len(text) - len(text.lstrip())), old, new, text.strip(), self.next)
        self.next += 1
        self.mutants.append(mutant)
        return mutant.number

    def is_barred(self, cursor):
        begin, end = self.range(cursor)
        if any(low < end and begin < high for low, high in self.macros if not (begin <= low and high <= end)):
            return True
        return any(line in self.barred for line in range(cursor.extent.start.line, cursor.extent.end.line + 1))

    def visit(self, cursor, edits, parent):
        kind = cursor.kind
        begin, end = self.range(cursor)
        if begin == end or not self.is_here(cursor):
            return
        if kind == Kind.STATIC_ASSERT or kind in FUNCTIONS or kind in (Kind.DECL_REF_EXPR, Kind.TYPE_REF, Kind.TEMPLATE_REF, Kind.ENUM_DECL):
            self.count(cursor)
            return
        if any(low <= begin and end <= high for low, high in self.macros):
            self.count(cursor, MACRO)
            return
        if kind == Kind.VAR_DECL:
            self.variable(cursor, edits)
            return
        if kind == Kind.CASE_STMT:
            parts = list(cursor.get_children())
            self.count(parts[0])
            for part in parts[1:]:
                self.statement(part, edits)
            return
        if kind == Kind.MEMBER_REF_EXPR:
            for child in cursor.get_children():
                if self.range(child)[0] < cursor.location.offset:
                    self.visit(child, edits, cursor)
            return
        if kind in (Kind.COMPOUND_STMT, Kind.DEFAULT_STMT):
            for child in cursor.get_children():
                self.statement(child, edits)
            return
        if kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.FOR_STMT, Kind.DO_STMT, Kind.CXX_FOR_RANGE_STMT):
            self.control(cursor, edits)
            return
        if kind == Kind.LAMBDA_EXPR:
            saved, self.result = getattr(self, 'result', None), None
            for child in cursor.get_children():
                if child.kind == Kind.COMPOUND_STMT:
                    self.visit(child, edits, cursor)
            self.result = saved
            return
        if self.is_barred(cursor) and kind not in TRANSPARENT:
            # On such a line nothing is mutated, but a statement may have other lines.
            inner = []
            self.children(cursor, inner)
            edits += inner
            return
        mutate = {Kind.BINARY_OPERATOR: self.binary, Kind.COMPOUND_ASSIGNMENT_OPERATOR: self.assignment, Kind.UNARY_OPERATOR: self.unary,
                  Kind.INTEGER_LITERAL: self.literal, Kind.CXX_BOOL_LITERAL_EXPR: self.boolean, Kind.RETURN_STMT: self.returned,
                  Kind.CONDITIONAL_OPERATOR: self.conditional}.get(kind)
        if mutate is None or not mutate(cursor, edits):
            self.children(cursor, edits)

    def variable(self, cursor, edits):
        begin, end = self.range(cursor)
        name = cursor.location.offset + len(cursor.spelling)
        if 'constexpr' in self.slice(begin, name) or 'constinit' in self.slice(begin, name):
            self.count(cursor)
            return
        for child in cursor.get_children():
            start = self.range(child)[0]
            # Before the name: template arguments. After "[": the size of an array. At the name: a constructor's call.
            call = self.bare(child)
            if call.kind == Kind.CALL_EXPR and start == cursor.location.offset:
                for argument in call.get_children():
                    if self.range(argument)[0] >= name:
                        self.visit(argument, edits, child)
            elif start < name or self.slice(name, start).rstrip().endswith('['):
                self.count(child)
            else:
                self.visit(child, edits, cursor)

    def control(self, cursor, edits):
        parts = list(cursor.get_children())
        begin = self.range(cursor)[0]
        constant = re.match(r'if\s+constexpr\b', self.slice(begin, begin + 40))
        if cursor.kind == Kind.DO_STMT:
            bodies, conditions = [parts[0]], [parts[1]]
        elif cursor.kind == Kind.CXX_FOR_RANGE_STMT:
            bodies, conditions = [parts[-1]], []
        elif cursor.kind == Kind.FOR_STMT:
            bodies, conditions = [parts[-1]], [one for one in parts[:-1] if one.type.get_canonical().kind == TypeKind.BOOL and one.kind.is_expression()]
        elif cursor.kind == Kind.IF_STMT:
            tail = 1
            for one in range(1, len(parts)):
                between = self.slice(self.range(parts[-1 - one])[1], self.range(parts[-one])[0])
                if tail == 1 and re.search(r'\belse\b', between):
                    tail = 2
                break
            bodies, conditions = parts[-tail:], [one for one in parts[-tail - 1:-tail] if one.kind.is_expression()]
        else:
            bodies, conditions = [parts[-1]], [one for one in parts[-2:-1] if one.kind.is_expression()]
        for part in parts:
            if part in bodies:
                self.statement(part, edits)
            elif part in conditions and constant:
                self.count(part)
            elif part in conditions:
                self.condition(part, edits)
            else:
                self.visit(part, edits, cursor)

    def condition(self, cursor, edits):
        begin, end = self.range(cursor)
        inner = self.bare(cursor)
        simple = inner.kind == Kind.CXX_BOOL_LITERAL_EXPR or (inner.kind == Kind.UNARY_OPERATOR and self.bytes[self.range(inner)[0]:][:1] == b'!')
        if simple or self.operator(inner) in COMPARISONS or self.is_barred(cursor):
            self.visit(cursor, edits, None)
            return
        number = self.new(begin, self.slice(begin, end), f'!({self.slice(begin, end)})')
        edits.append((begin, end, f'(static_cast<bool>({self.text(cursor)}) != mutants::on({number}))'))

    def bare(self, cursor):
        while cursor.kind in TRANSPARENT:
            parts = list(cursor.get_children())
            if len(parts) != 1:
                break
            cursor = parts[0]
        return cursor

    def statement(self, cursor, edits):
        """A statement that is only an expression: leaves it out."""
        inner = self.bare(cursor)
        begin, end = self.range(cursor)
        is_call = inner.kind == Kind.CALL_EXPR
        is_change = inner.kind in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNARY_OPERATOR)
        inside_macro = any(low <= begin and end <= high for low, high in self.macros)
        if not (is_call or is_change) or self.is_barred(cursor) or inside_macro or not self.is_here(cursor):
            self.visit(cursor, edits, None)
            return
        if (begin, end) == self.ending:
            self.left_out[ENDING] += 1
            self.visit(cursor, edits, None)
            return
        old = self.slice(begin, end).split('\n')[0]
        number = self.new(begin, old, 'nothing')
        edits.append((begin, end, f'(mutants::on({number}) ? void() : void({self.text(cursor)}))'))

    def operator(self, cursor):
        if cursor.kind not in (Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR):
            return None
        parts = list(cursor.get_children())
        if len(parts) != 2:
            return None
        return re.sub(r'//[^\n]*\n|/\*.*?\*/', '', self.slice(self.range(parts[0])[1], self.range(parts[1])[0])).strip()

    def place(self, cursor):
        """Where the operator stands."""
        left, right = cursor.get_children()
        begin = self.range(left)[1]
        text = self.slice(begin, self.range(right)[0])
        return begin + len(text) - len(text.lstrip())

    def joined(self, left, middle, right):
        """left + middle + right on as many lines as the original, for the line numbers of what follows."""
        lost = self.slice(self.range(left)[1], self.range(right)[0]).count('\n')
        return self.text(left), middle + '\n' * lost, self.text(right)

    def binary(self, cursor, edits):
        operator = self.operator(cursor)
        begin, end = self.range(cursor)
        if operator in ('&&', '||'):
            left, right = cursor.get_children()
            number = self.new(self.place(cursor), operator, '||' if operator == '&&' else '&&')
            first, middle, second = self.joined(left, operator, right)
            on = f'mutants::on({number})'
            edits.append((begin, end, f'(((static_cast<bool>({first}) != {on}) {middle} (static_cast<bool>({second}) != {on})) != {on})'))
            return True
        if operator not in INSTEAD:
            return False
        left, right = cursor.get_children()
        others = INSTEAD[operator]
        pointers = [one for one in (left, right) if one.type.get_canonical().kind in (TypeKind.POINTER, TypeKind.CONSTANTARRAY)]
        if operator == '-' and len(pointers) == 2:
            return False
        numbers = [self.new(self.place(cursor), operator, other) for other in others]
        first, middle, second = self.joined(left, ',', right)
        names = ', '.join('mutants::' + NAMES[one] for one in (operator, *others))
        edits.append((begin, end, f'mutants::operation<{names}>({numbers[0]}, {first}{middle} {second})'))
        return True

    def assignment(self, cursor, edits):
        operator = self.operator(cursor)
        left, right = list(cursor.get_children())
        if operator not in ASSIGNMENTS or left.type.get_canonical().kind not in (*NUMBERS, TypeKind.POINTER):
            return False
        begin, end = self.range(cursor)
        number = self.new(self.place(cursor), operator, ASSIGNMENTS[operator])
        if '\n' in self.slice(begin, end):
            self.mutants.pop()
            self.next -= 1
            return False
        first, second = self.text(left), self.text(right)
        edits.append((begin, end, f'(mutants::on({number}) ? ({first} {ASSIGNMENTS[operator]} {second}) : ({first} {operator} {second}))'))
        return True

    def unary(self, cursor, edits):
        begin, end = self.range(cursor)
        text = self.slice(begin, end)
        operand = list(cursor.get_children())[0]
        if text.startswith('!'):
            number = self.new(begin, text.split('\n')[0], text[1:].split('\n')[0])
            edits.append((begin, end, f'(static_cast<bool>({self.text(operand)}) == mutants::on({number}))'))
            return True
        for one, other in (('++', '--'), ('--', '++')):
            if '\n' not in text and (text.startswith(one) or text.endswith(one)):
                number = self.new(begin if text.startswith(one) else end - 2, one, other)
                inner = self.text(operand)
                old, new = (one + inner, other + inner) if text.startswith(one) else (inner + one, inner + other)
                edits.append((begin, end, f'(mutants::on({number}) ? {new} : {old})'))
                return True
        if text.startswith('-') and not text.startswith('--'):
            number = self.new(begin, text, text[1:])
            inner = self.text(operand)
            edits.append((begin, end, f'(mutants::on({number}) ? +({inner}) : -({inner}))'))
            return True
        return False

    def literal(self, cursor, edits):
        begin, end = self.range(cursor)
        text = self.slice(begin, end)
        if not re.fullmatch(r"(0[xX])?[0-9a-fA-F']+[uUlLzZ]*", text):
            return False
        number = self.new(begin, text, f'{text} + 1')
        edits.append((begin, end, f'({text} + mutants::on({number}))'))
        return True

    def boolean(self, cursor, edits):
        begin, end = self.range(cursor)
        text = self.slice(begin, end)
        if text not in ('true', 'false'):
            return False
        number = self.new(begin, text, 'false' if text == 'true' else 'true')
        edits.append((begin, end, f'({text} != mutants::on({number}))'))
        return True

    def conditional(self, cursor, edits):
        condition, yes, no = cursor.get_children()
        self.condition(condition, edits)
        self.visit(yes, edits, cursor)
        self.visit(no, edits, cursor)
        return True

    def returned(self, cursor, edits):
        parts = list(cursor.get_children())
        result = getattr(self, 'result', None)
        if len(parts) != 1 or result is None:
            return False
        value = self.bare(parts[0])
        begin, end = self.range(parts[0])
        text = self.slice(begin, end)
        kind = result.get_canonical().kind
        named = value.referenced if value.kind == Kind.DECL_REF_EXPR else None
        if named is not None and named.kind == Kind.ENUM_CONSTANT_DECL and named.enum_value == 0:
            self.left_out[SAME] += 1
            return False
        # "return 0" has its constant's mutant, "return a < b" its comparison's.
        if text in ('0', '{}', 'nullptr', 'true', 'false') or self.operator(value) in COMPARISONS or self.operator(value) in ('&&', '||'):
            return False
        if kind == TypeKind.BOOL:
            if text.startswith('!'):
                return False
            number = self.new(begin, text.split('\n')[0], f'!({text})'.split('\n')[0])
            edits.append((begin, end, f'(static_cast<bool>({self.text(parts[0])}) != mutants::on({number}))'))
            return True
        if kind not in (*NUMBERS, TypeKind.POINTER, TypeKind.ENUM):
            return False
        number = self.new(begin, text.split('\n')[0], '{}')
        edits.append((*self.range(cursor), f'if (mutants::on({number})) return {{}}; else return {self.text(parts[0])}'))
        return True


def arguments_for(command):
    """What libclang needs of a compile command."""
    words, takes = [], False
    for word, following in zip(command, [*command[1:], '']):
        if takes:
            words.append(word)
            takes = False
        elif word in ('-isystem', '-iquote', '-I') or (word == '-include' and 'cmake_pch' not in following):
            words.append(word)
            takes = True
        elif re.match(r'-(I|D|U|std=)', word):
            words.append(word)
    folder = subprocess.run(['clang', '-print-resource-dir'], capture_output=True, text=True, check=True).stdout.strip()
    return ['-x', 'c++', *words, f'-resource-dir={folder}']


def refused_lines(errors, path, lines):
    """Those of `lines` of `path` that the compiler's errors name, or else its notes, or else the innermost that instantiates what is refused."""
    for word in ('error', 'note'):
        named = lines & {int(one) for one in re.findall(rf'^{re.escape(path)}:(\d+):\d+: (?:fatal )?{word}', errors, re.M)}
        if named:
            return named
    instantiated = (re.findall(rf'^{re.escape(path)}:(\d+):\d+:   required from', one, re.M) for one in errors.split('In instantiation of')[1:])
    return {int(one[0]) for one in instantiated if one} & lines


def write(source, first, path, compile_command):
    """Writes the copy to `path`; leaves out the lines that the compiler refuses."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    for _ in range(20):
        text = source.mutated(first)
        with open(path, 'w', encoding='utf-8') as file:
            file.write(text)
        done = subprocess.run([*compile_command, '-fsyntax-only'], capture_output=True, text=True)
        if done.returncode == 0:
            return
        lines = refused_lines(done.stderr, path, {mutant.line for mutant in source.mutants})
        if not lines:
            raise SystemExit(f'scripts/mutate: cannot compile the copy of {source.name}:\n{done.stderr[:4000]}')
        source.barred |= lines
    raise SystemExit(f'scripts/mutate: the copy of {source.name} does not compile')
