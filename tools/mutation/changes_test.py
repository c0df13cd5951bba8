"""Tests of how changes are found, named and excused, on small sources."""
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from changes import Source, WrongEntries, named, read_equivalent
from programs import Build

CODE = r'''
namespace sc {

#define TWICE(x) \
  ((x) + (x))

constexpr int kLimit = 7;
constexpr Row kRows[] = {
    {"one", 1},
    {"two // no comment", 2},
};

struct Pair {
  int first;
};

class Lock {
 public:
  Lock(const Lock&) = delete;
  ~Lock() { release(); }
  bool taken() const { return taken_; }
};

/* if (this) is a comment; */
int run(Call& call, int op) {
  using Word = int;
  if (const int status = parse(call, "a;b"); status != kOk) return status;
  switch (op) {
    case 1:
      release(call);
      return 0;
    case 2:
      release(call);
      return 0;
  }
  say("%s: %s",
      call.name, call.why);
  while (op < 3 &&
         next(call)) {
    ++op;
  }
  notify(call);
  count(call);
  return op;
}

}  // namespace sc
'''


def found(of_tools=True, code=CODE):
    return Source("a.cc", code, of_tools).changes()


def keys(of_tools=True, code=CODE):
    return {key for key, _ in named(found(of_tools, code))}


def pairs(of_tools=True):
    return {(change.old, change.changed) for change in found(of_tools)}


class Changes(unittest.TestCase):
    def test_a_return_is_left_out_and_names_of_types_are_not(self):
        for of_tools in (False, True):
            self.assertIn(("return op;", "(nothing)"), pairs(of_tools))
            self.assertNotIn(("using Word = int;", "(nothing)"), pairs(of_tools))

    def test_a_call_is_left_out_on_one_line_and_on_several(self):
        self.assertIn(("notify(call);", "(nothing)"), pairs(False))
        self.assertIn(('say("%s: %s", / call.name, call.why);', "(nothing)"), pairs())

    def test_neighbouring_calls_change_places(self):
        self.assertIn(("notify(call); / count(call);", "count(call); / notify(call);"), pairs())
        self.assertNotIn(("count(call); / return op;", "return op; / count(call);"), pairs())

    def test_of_a_condition_the_declaration_stays(self):
        line = 'if (const int status = parse(call, "a;b"); %s) return %s;'
        self.assertIn((line % ("status != kOk", "status"), line % ("!(status != kOk)", "status")),
                      pairs())
        self.assertIn((line % ("status != kOk", "status"), line % ("status != kOk", "kOk")), pairs())
        self.assertIn(("while (op < 3 && / next(call)) {", "while (!(op < 3 && / next(call))) {"),
                      pairs())
        self.assertIn(("while (op < 3 &&", "while (op < 3 ||"), pairs())

    def test_rows_are_left_out(self):
        self.assertIn(('{"one", 1},', "(nothing)"), pairs())

    def test_comments_and_what_looks_like_them_are_told_apart(self):
        self.assertFalse([pair for pair in pairs() if "is a comment" in pair[0]])
        self.assertIn(('{"two // no comment", 2},', '{"two // no comment", 3},'), pairs())

    def test_each_change_knows_its_definition(self):
        functions = {change.old: change.function for change in found()}
        self.assertEqual(functions["constexpr int kLimit = 7;"], "kLimit")
        self.assertEqual(functions['{"one", 1},'], "kRows")
        self.assertEqual(functions["~Lock() { release(); }"], "Lock::~Lock")
        self.assertEqual(functions["bool taken() const { return taken_; }"], "Lock::taken")
        self.assertEqual(functions["int first;"], "Pair::first")
        self.assertEqual(functions["notify(call);"], "run")
        self.assertEqual(functions["return op;"], "run")

    def test_a_change_is_what_its_name_says(self):
        for change in found():
            text = CODE[:change.start] + change.new + CODE[change.end:]
            self.assertNotEqual(text, CODE)
            lines = text.split("\n")[change.first - 1:change.last]
            if change.changed != "(nothing)" and "\n" not in change.new:
                self.assertIn(lines[0].strip(), change.changed)

    def test_no_two_changes_have_one_key(self):
        self.assertEqual(len(keys()), len(found()))


class Entries(unittest.TestCase):
    def expect_refused(self, text, why):
        with self.assertRaisesRegex(WrongEntries, why):
            read_equivalent(text, keys())

    def test_an_entry_excuses_the_one_change_that_it_names(self):
        key = "a.cc run: notify(call); -> (nothing)"
        self.assertEqual(read_equivalent("# why\n%s\n  Nobody hears.\n" % key, keys()), {key})

    def test_an_entry_for_several_changes_is_refused_until_it_says_which(self):
        self.expect_refused("a.cc run: return 0; -> (nothing)\n  Why.\n", "matches 2 changes")
        key = "a.cc run [2/2]: return 0; -> (nothing)"
        self.assertEqual(read_equivalent(key + "\n  Why.\n", keys()), {key})

    def test_an_entry_with_another_number_of_changes_alike_is_refused(self):
        self.expect_refused("a.cc run [2/3]: return 0; -> (nothing)\n  Why.\n", "matches no change")

    def test_an_entry_of_another_function_is_refused(self):
        self.expect_refused("a.cc walk: notify(call); -> (nothing)\n  Why.\n", "matches no change")

    def test_an_entry_without_a_reason_or_twice_is_refused(self):
        key = "a.cc run: notify(call); -> (nothing)\n"
        self.expect_refused(key, "gives no reason")
        self.expect_refused(key + "  Why.\n" + key + "  Why.\n", "stands twice")


class Compiling(unittest.TestCase):
    def compile(self, code):
        build = Build.__new__(Build)
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, "a.cc")
            source.write_text(code)
            build.commands = {"a.o": ["g++", "-Wall", "-Wextra", "-Werror", "-O2", "-o", "a.o", "-c",
                                      str(source)]}
            return build.compile("a.o", pathlib.Path(folder, "b.o"), [], pathlib.Path(folder))

    def test_a_function_that_ends_without_its_result_is_refused(self):
        self.assertNotEqual(self.compile("int f(int a) { if (a) return 1; }").returncode, 0)

    def test_other_warnings_are_none(self):
        done = self.compile("int f(int a) { int unused; if (a = 1) return 1; return 0; }")
        self.assertEqual((done.returncode, done.stderr), (0, b""))


unittest.main()
