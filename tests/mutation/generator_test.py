"""Checks what scripts/mutate changes: each test writes a small source, compiles its mutated copy and runs it with every mutant."""
import os
import subprocess
import sys
import tempfile
import unittest

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, FOLDER)
import generator  # noqa: E402

COMPILER = ['g++', '-std=c++20', '-w', '-Wno-narrowing', '-include', os.path.join(FOLDER, 'mutants.h')]


class Generator(unittest.TestCase):
    def setUp(self):
        self.temporary = tempfile.TemporaryDirectory()
        self.addCleanup(self.temporary.cleanup)

    def path(self, name):
        return os.path.join(self.temporary.name, name)

    def mutate(self, text):
        """The mutants of a source; builds the program that holds them all."""
        with open(self.path('sample.cpp'), 'w', encoding='utf-8') as file:
            file.write(text)
        self.source = generator.Source(self.path('sample.cpp'), 'sample.cpp', generator.arguments_for(['g++', '-std=c++20']))
        copy = self.path('copy.cpp')
        generator.write(self.source, 0, copy, [*COMPILER, copy])
        subprocess.run([*COMPILER, '-o', self.path('program'), copy], check=True)
        return self.source.mutants

    def answer(self, number=None, **environment):
        """What the program with this mutant prints and ends with."""
        chosen = {} if number is None else {'SHMNM_MUTANT': str(number)}
        done = subprocess.run([self.path('program')], env={**os.environ, **environment, **chosen}, capture_output=True, timeout=20)
        return done.stdout.decode().strip() or done.returncode

    def answers(self, body, before=''):
        """The answer of f(), unmutated, and the answer with each change."""
        mutants = self.mutate(f'#include <cstdio>\n{before}\n{body}\n#define SHOW() (std::printf("%d\\n", f()), 0)\nint main() {{ return SHOW(); }}\n')
        own = [one for one in mutants if 'SHOW' not in one.text]
        return self.answer(), {one.change(): self.answer(one.number) for one in own}

    def test_comparisons_are_moved_and_turned_round(self):
        for operator, original, changes in (('<', '0', {'< -> <=': '1', '< -> >=': '1'}), ('<=', '1', {'<= -> <': '0', '<= -> >': '0'}),
                                            ('>', '0', {'> -> >=': '1', '> -> <=': '1'}), ('>=', '1', {'>= -> >': '0', '>= -> <': '0'}),
                                            ('==', '1', {'== -> !=': '0'}), ('!=', '0', {'!= -> ==': '1'})):
            self.assertEqual(self.answers(f'int f() {{ volatile int a{{}}, b{{}}; return a {operator} b; }}')[0], original)
            got = self.answers(f'int f() {{ volatile int a{{}}, b{{}}; return a {operator} b; }}')[1]
            self.assertEqual(got, changes)

    def test_arithmetic_is_replaced(self):
        for operator, original, change, other in (('+', '8', '+ -> -', '4'), ('-', '4', '- -> +', '8'), ('*', '12', '* -> /', '3'),
                                                  ('/', '3', '/ -> *', '12'), ('%', '0', '% -> *', '12'), ('&', '2', '& -> |', '6'),
                                                  ('|', '6', '| -> &', '2'), ('<<', '24', '<< -> >>', '1'), ('>>', '1', '>> -> <<', '24')):
            first, changes = self.answers(f'int f() {{ return a {operator} b; }}', 'volatile int a = 6, b = 2;')
            self.assertEqual((first, changes[change]), (original, other))
            self.assertEqual(len(changes), 2)  # the second is the return

    def test_logic_is_swapped_and_still_stops_early(self):
        code = 'int asked; bool no() { asked += 1; return false; } int f() { bool both = no() %s no(); return asked * 10 + both; }'
        first, changes = self.answers(code % '&&')
        self.assertEqual((first, changes['&& -> ||']), ('10', '20'))
        first, changes = self.answers(code % '||')
        self.assertEqual((first, changes['|| -> &&']), ('20', '10'))

    def test_conditions_are_negated(self):
        for code in ('if (a) return b; return c;', 'return a ? b : c;'):
            first, changes = self.answers(f'int f() {{ {code} }}', 'bool a = true; int b = 5, c = 7;')
            self.assertEqual((first, changes['a -> !(a)']), ('5', '7'))
        first, changes = self.answers('int f() { if (!a) return b; else return c; }', 'bool a = true; int b = 5, c = 7;')
        self.assertEqual((first, changes['!a -> a']), ('7', '5'))
        first, changes = self.answers('int f() { while (a) return b; return c; }', 'bool a = true; int b = 5, c = 7;')
        self.assertEqual((first, changes['a -> !(a)']), ('5', '7'))

    def test_constants_are_raised_and_truths_turned(self):
        first, changes = self.answers('int f() { int a = 3; bool b = true; return a * 2 + b; }')
        self.assertEqual(first, '7')
        self.assertEqual({one: changes[one] for one in ('3 -> 3 + 1', '2 -> 2 + 1', 'true -> false')},
                         {'3 -> 3 + 1': '9', '2 -> 2 + 1': '10', 'true -> false': '6'})

    def test_statements_are_left_out(self):
        first, changes = self.answers('int f() { a = 1; count(); a += 4; return a; }', 'int a; void count() { a += 10; }')
        self.assertEqual(first, '15')
        self.assertEqual([changes[one] for one in ('a = 1 -> nothing', 'count() -> nothing', 'a += 4 -> nothing')], ['14', '5', '11'])

    def test_the_last_statement_of_a_function_that_must_not_return_stays(self):
        before = ('#include <cstdlib>\nstruct Ends { [[noreturn]] void declared(); };\nint count;\n'
                  '[[noreturn]] void defined() { count += 1; std::exit(7); }\nvoid Ends::declared() { defined(); }')
        first, changes = self.answers('int f() { Ends().declared(); return 1; }', before)
        self.assertEqual(first, 7)
        self.assertEqual({one: changes[one] for one in changes if one.endswith('nothing')},
                         {'count += 1 -> nothing': 7, 'Ends().declared() -> nothing': '1'})
        self.assertEqual(changes['7 -> 7 + 1'], 8)
        self.assertEqual(self.source.left_out[generator.ENDING], 2)

    def test_steps_and_assignments_are_turned(self):
        first, changes = self.answers('int f() { int i{}; ++i; i += b; return i; }', 'int b = 5;')
        self.assertEqual((first, changes['++ -> --'], changes['+= -> -=']), ('6', '4', '-4'))

    def test_returns_give_nothing(self):
        first, changes = self.answers('int f() { return a; }', 'int a = 9;')
        self.assertEqual((first, changes), ('9', {'a -> {}': '0'}))
        first, changes = self.answers('bool f() { return a; }', 'bool a = true;')
        self.assertEqual((first, changes), ('1', {'a -> !(a)': '0'}))

    def test_a_return_that_gives_nothing_already_is_left_out(self):
        mutants = self.mutate('enum { good, bad };\nunsigned f(bool a) { if (a) return bad; return good; }\nint main() {}\n')
        self.assertEqual([one.change() for one in mutants], ['a -> !(a)', 'bad -> {}'])
        self.assertEqual(self.source.left_out[generator.SAME], 1)

    def test_constructor_arguments_are_changed(self):
        first, changes = self.answers('int f() { const Pair pair(4, {5}); return pair.sum; }',
                                      'struct Pair { int sum; Pair(int a, int (&&b)[1]) : sum(a + b[0]) {} };')
        self.assertEqual((first, changes['4 -> 4 + 1']), ('9', '10'))

    def test_what_the_compiler_needs_as_a_constant_is_left_out_and_counted(self):
        for code in ('constexpr int f() { return 1 + 2; }', 'static_assert(1 + 1 == 2);', 'int f() { constexpr int a = 4; return a; }',
                     'void f() { char text[12]; (void)text; }', 'template <int N> int n() { return N; } int f() { return n<3>(); }',
                     'int f(int a) { switch (a) { case 2: return a; } return a; }', 'int f(int a) { if constexpr (1 < 2) return a; return a; }',
                     '#include <array>\nvoid f() { std::array<int, 3> a; (void)a; }'):
            mutants = self.mutate(code + '\nint main() {}\n')
            self.assertEqual([one.change() for one in mutants if one.new != '{}'], [], code)
            if not code.startswith(('static_assert', '#include')):
                self.assertGreater(self.source.left_out[generator.CONSTANT], 0, code)

    def test_macros_are_not_looked_into(self):
        mutants = self.mutate('#define LESS(a, b) ((a) < (b) ? 1 : 2)\nint f(int a) { return LESS(a, 3); }\nint main() {}\n')
        self.assertEqual([one.change() for one in mutants], ['LESS(a, 3) -> {}'])
        self.assertGreater(self.source.left_out[generator.MACRO], 0)

    def test_lines_that_the_compiler_refuses_are_left_out(self):
        # The analysis of the source does not know that the size must be a constant two lines below.
        mutants = self.mutate('template <int N> struct Box {};\nvoid f() {\n    const int n = 3;\n    Box<n> box;\n    (void)box;\n}\nint main() {}\n')
        self.assertEqual(mutants, [])
        self.assertEqual(self.source.barred, {3})
        self.assertEqual(self.source.left_out[generator.REFUSED], 1)

    def test_lines_of_templates_that_the_compiler_refuses_for_a_type_are_left_out(self):
        # As iterators do, these have a distance, but no sum.
        mutants = self.mutate('struct Place {\n    int at;\n    int operator-(Place other) const { return at - other.at; }\n};\n'
                              'template <class Any>\nint distance(Any first, Any last) {\n    return last - first;\n}\n'
                              'int main() { return distance(Place{1}, Place{3}); }\n')
        self.assertEqual(self.source.barred, {7})
        self.assertEqual([one.line for one in mutants if one.line == 7], [])

    def test_lines_keep_their_numbers(self):
        text = 'int f(int a) {\n    return a <\n           3 &&\n           a > 1;\n}\nint line() { return __LINE__; }\nint main() { return line(); }\n'
        self.mutate(text)
        self.assertEqual(self.answer(), 6)

    def test_a_record_says_which_mutants_ran(self):
        mutants = self.mutate('int f(bool a) {\n    if (a) return 5;\n    return 6;\n}\nint main() { f(false); }\n')
        with open(self.path('run'), 'wb') as file:
            file.truncate(1 << 19)
        self.answer(SHMNM_MUTANTS_RUN=self.path('run'))
        with open(self.path('run'), 'rb') as file:
            ran = file.read()
        lines = {one.line: bool(ran[one.number]) for one in mutants if one.change() in ('5 -> 5 + 1', '6 -> 6 + 1', 'f(false) -> nothing')}
        self.assertEqual(lines, {2: False, 3: True, 5: True})


if __name__ == '__main__':
    unittest.main()
