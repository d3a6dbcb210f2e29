"""Tests of the mutator: that its mutants are what they are said to be, and told apart.

A sample is compiled with all its mutants in it, and run with each of them chosen.
"""

import mmap
import os
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import mutants as mutation  # noqa: E402
import mutate  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))

SAMPLE = r"""#include <cstdio>
#include <cstring>

constexpr int QPX_OK = 0;
constexpr int QPX_ERR_NULLPTR = -109;
constexpr int QPX_ERR_SYSTEM_ERROR = -9;
constexpr int LINE_SIZE = 10; // 12 < 13 is no comparison here

#define TRACE(text) trace(text)
static int clientAPITrace = 1;

struct Clapilock {
    pthread_mutex_t lock;
    int initialized;
};
struct LockGuard {
    explicit LockGuard(Clapilock& theLock) : own(theLock) { own.initialized += 1; }
    ~LockGuard() { own.initialized -= 1; }
    Clapilock& own;
};
static Clapilock listLock = {};
static char written[64];

static void trace(const char* text)
{
    strcat(written, text);
}

/* Whether 1 < 2 is compared. */
static int sizeOf(const char* text, bool counted)
{
    if (text == nullptr) return QPX_ERR_NULLPTR;
    int size = LINE_SIZE;
    if (counted) size = static_cast<int>(strlen(text));
    while (size < 4) size += 1;
    return size;
}

static int lockedSize(const char* text)
{
    LockGuard list(listLock);
    TRACE("(locked)");
    if (listLock.initialized > 0 && text[0] != '\0') return sizeOf(text, true);
    return QPX_OK;
}

int main()
{
    std::printf("%d %d %d %d %d", sizeOf(nullptr, true), sizeOf("12345", true),
                sizeOf("12345", false), sizeOf("1", true), lockedSize("1234"));
    std::printf(" %s\n", written);
}
"""

# What the sample writes with each mutant: by function, its change, and which of its name it is.
PLAIN = "-109 5 10 4 4 (locked)"
EXPECTED = {
    ("sizeOf", "comparison", "== to !="): None,  # reads from a null pointer
    ("sizeOf", "code", "QPX_ERR_NULLPTR to QPX_ERR_SYSTEM_ERROR"): "-9 5 10 4 4 (locked)",
    ("sizeOf", "off-by-one", "LINE_SIZE + 1"): "-109 5 11 4 4 (locked)",
    ("sizeOf", "comparison", "turned round: counted"): "-109 10 5 10 10 (locked)",
    ("sizeOf", "statement", "dropped"): "-109 10 10 10 10 (locked)",
    ("sizeOf", "comparison", "< to <="): "-109 5 10 5 5 (locked)",
    ("sizeOf", "off-by-one", "1 to 2"): "-109 5 10 5 4 (locked)",
    ("lockedSize", "lock", "not taken"): "-109 5 10 4 0 (locked)",
    ("lockedSize", "trace", "dropped"): "-109 5 10 4 4 ",
    ("lockedSize", "comparison", "> to <="): "-109 5 10 4 0 (locked)",
    ("lockedSize", "comparison", "!= to =="): "-109 5 10 4 0 (locked)",
    ("lockedSize", "code", "true to false"): "-109 5 10 4 10 (locked)",
}


class Sample(unittest.TestCase):
    """The sample, compiled once for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.source = mutation.make_all({"sample.cpp": SAMPLE})[0]
        cls.program = os.path.join(cls.folder.name, "sample")
        source = cls.program + ".cpp"
        with open(source, "w", encoding="utf-8") as file:
            file.write(mutation.apply_edits(cls.source))
        subprocess.run(["g++", "-std=c++17", "-w", "-fpermissive", "-I", HERE, "-include",
                        "mutant.h", source, os.path.join(HERE, "page.cpp"), "-o", cls.program], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def run_sample(self, **environment):
        done = subprocess.run([self.program], env=dict(os.environ, **environment), text=True,
                              check=False, stdout=subprocess.PIPE)
        return done.stdout.rstrip("\n") if done.returncode == 0 else None

    def mutant(self, function, kind, change):
        found = [m for m in self.source.mutants
                 if (m.function, m.kind, m.change) == (function, kind, change)]
        self.assertTrue(found, "no mutant %s, %s: %s" % (function, kind, change))
        return found[0]

    def test_behaves_as_the_original_with_no_mutant_chosen(self):
        self.assertEqual(PLAIN, self.run_sample())

    def test_behaves_as_each_mutant_says(self):
        for name, expected in EXPECTED.items():
            with self.subTest(name):
                number = str(self.mutant(*name).number)
                self.assertEqual(expected, self.run_sample(QPX_MUTANT=number))

    def test_makes_no_mutant_of_comments_texts_and_what_is_no_function(self):
        for line, text in enumerate(SAMPLE.splitlines(), 1):
            if text.startswith(("#", "/*", "constexpr")):
                self.assertEqual([], [m for m in self.source.mutants if m.line == line], text)

    def test_keeps_every_line_where_it_was(self):
        edited = mutation.apply_edits(self.source).splitlines()[1:]
        self.assertEqual(len(SAMPLE.splitlines()), len(edited))
        mutated = {m.line for m in self.source.mutants}
        for line, (before, after) in enumerate(zip(SAMPLE.splitlines(), edited), 1):
            self.assertEqual(before == after, line not in mutated, before)

    def test_leaves_out_the_mutants_of_a_line_that_does_not_compile(self):
        line = self.mutant("sizeOf", "code", "QPX_ERR_NULLPTR to QPX_ERR_SYSTEM_ERROR").line
        edited = mutation.apply_edits(self.source, {line}).splitlines()[1:]
        self.assertEqual(SAMPLE.splitlines()[line - 1], edited[line - 1])

    def test_notes_in_the_page_which_mutants_are_reached(self):
        name = os.path.join(self.folder.name, "page")
        with open(name, "wb") as file:
            file.write(bytes(mutate.HEADER_SIZE + len(self.source.mutants) + 8))
        number = self.mutant("sizeOf", "off-by-one", "LINE_SIZE + 1").number
        with open(name, "r+b") as file, mmap.mmap(file.fileno(), 0) as page:
            page[:mutate.HEADER_SIZE] = number.to_bytes(mutate.HEADER_SIZE, sys.byteorder)
            self.assertEqual("-109 5 11 4 4 (locked)", self.run_sample(QPX_MUTANT_PAGE=name))
            reached = page[mutate.HEADER_SIZE:]
        self.assertTrue(reached[number])
        self.assertFalse(reached[self.mutant("lockedSize", "code", "QPX_OK to QPX_ERR_SYSTEM_ERROR")
                                 .number], "what stands behind a return is not reached")


class Keys(unittest.TestCase):
    def test_stay_when_lines_come_before_them(self):
        before = mutation.make_all({"sample.cpp": SAMPLE})[0]
        moved = SAMPLE.replace("int main()", "static bool more(int a)\n{\n    return a > 7;\n}\n\n"
                               "int main()").replace("/* Whether", "\n\n/* Whether")
        after = mutation.make_all({"sample.cpp": moved})[0]
        self.assertEqual([], [m.key for m in before.mutants
                              if m.key not in {other.key for other in after.mutants}])

    def test_differ_for_every_mutant(self):
        keys = [m.key for source in mutate.read_sources() for m in source.mutants]
        self.assertEqual(len(keys), len(set(keys)))
        self.assertGreater(len(keys), 2000)


class Survivors(unittest.TestCase):
    def test_that_are_listed_are_mutants_and_have_a_reason(self):
        keys = {m.key for source in mutate.read_sources() for m in source.mutants}
        listed = mutate.known_survivors(os.path.join(HERE, "survivors.toml"))
        for key, (_, reason) in listed.items():
            self.assertIn(key, keys)
            self.assertGreater(len(reason), 20, key)

    def test_count_as_new_unless_they_are_listed(self):
        chosen = mutation.make_all({"sample.cpp": SAMPLE})[0].mutants[:4]
        results = mutate.Results(os.path.join(tempfile.gettempdir(), "there-is-no-such-file"))
        results.of = {chosen[0].key: {"status": "killed"}, chosen[1].key: {"status": "survived"},
                      chosen[2].key: {"status": "survived"}, chosen[3].key: {"status": "survived"}}
        reasons = {chosen[1].key: ("equivalent", "it is the same"),
                   chosen[2].key: ("open", "nobody has a test")}
        self.assertEqual(["killed", "equivalent", "open", "survived"],
                         [mutate.status_of(m, results, reasons) for m in chosen])


if __name__ == "__main__":
    unittest.main()
