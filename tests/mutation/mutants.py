"""Makes mutants of C++ sources: one text in which all of them are, each chosen at run time.

A mutant is a small change that the tests should notice. The text keeps its lines, so that what the
compiler and the debugger say of it holds for the original. It reads as the style of this tree has
it: blanks around binary operators and none around the brackets of templates, one statement a line.
"""

import re
from dataclasses import dataclass, field

KINDS = {
    "comparison": "a comparison, a condition or a bound turned round",
    "off-by-one": "a number, a size or a limit that is one off",
    "statement": "a statement dropped",
    "trace": "a line of the trace dropped",
    "code": "a return code, a state or a kind swapped for another",
    "lock": "a lock not taken",
}

# What is swapped for another of its family: the next one in the row.
FAMILIES = [
    ["CONN_CONNECTING", "CONN_CONNECTED", "CONN_FAILED", "CONN_LOST", "CONN_CLOSED"],
    ["SLOT_FREE", "SLOT_ALLOCATED", "SLOT_WAITING", "SLOT_DELIVERED", "SLOT_LUW_IDLE"],
    ["WIRE_CALL_PROGRAM", "WIRE_CALL_TPN", "WIRE_CALL_LIST_SYSTEMS"],
    ["FLOW_REQUEST", "FLOW_HANDSHAKE", "FLOW_CLOSE"],
    ["MESSAGE_ID_CLOSE", "MESSAGE_ID_CONNECTION"],
    ["PROGRAM_CALL", "SYSTEM_LIST_QUERY"],
    ["DELETED_WHILE_HELD", "LEFT_TO_HOLDER"],
    ["ReplyKind::eci", "ReplyKind::empty", "ReplyKind::esi"],
    ["Deleter::Opener", "Deleter::Marker", "Deleter::Other"],
    ["Seeker::Caller", "Seeker::Holder"],
    ["FIELD_FOLLOWS", "NO_FIELD"],
    ["TOKEN_NULL", "TOKEN_NOT_FOUND", "TOKEN_FOUND"],
    ["LOCK_REQUIRED", "CALLER_HOLDS_LOCK"],
    ["NO_WAIT", "WAIT_WITHOUT_LIMIT"],
    ["CONTAINER_ADDED", "CONTAINER_MODIFIED", "CONTAINER_DELETED", "CONTAINER_UNCHANGED"],
    ["true", "false"],
]
GOOD_CODES = {"QPX_OK": "QPX_ERR_SYSTEM_ERROR", "ECI_NO_ERROR": "ECI_ERR_SYSTEM_ERROR"}
ERROR_CODE = re.compile(r"\b(QPX_ERR|ECI_ERR|ESI_ERR)_\w+")

RELATIONS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"],
             ">": [">=", "<="], ">=": [">", "<"]}
RELATION = re.compile(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)")
NEGATION = re.compile(r"!(?=[\w(*:])")
NUMBER = re.compile(r"(?<![\w.'\"])(0[xX][0-9A-Fa-f]+|\d+)[uUlL]*(?![\w.'\"])")
NAMED_SIZE = re.compile(r"\b(?:[A-Z][A-Z0-9_]*(?:_SIZE|_SIZE_WITH_XID|_CAPACITY)|SHRT_MAX|"
                        r"SLOTS_PER_TABLE|INDEX_SEGMENTS)\b")
SIZEOF = re.compile(r"(?:(?<=, )|(?<=\())sizeof (\*?[A-Za-z_][\w>.\-]*)")
CALL_OF_SIZE = re.compile(r"\b(memcpy|memset|memcmp|strnlen|explicit_bzero|writeBytes|readBytes|"
                          r"writePaddedBytes|snprintf)\s*\($")
BOUND = re.compile(r"\bstd::(min|max|clamp)(?:<(\w+)>)?\(")
TERNARY = re.compile(r"(?:(?<=[=,:] )|(?<=return )|(?<=\())(\w+) \?")
SCOPES = re.compile(r"^(ContainerListHold|OpenSocketsHold|TraceHold|ApiCall|SignalsBlocked) "
                    r"(\w+);$")
GUARD = re.compile(r"^LockGuard (\w+)\((.*)\);$", re.S)
MUTEX = re.compile(r"clapi(Take(?:ForFork)?|GiveUp(?:AfterFork)?)\(([^;]*)\);")
REQUEST = re.compile(r"\bclapiRequestLock\(&|\b\w+(?:->|\.)request\(\)")
DECLARATION = re.compile(
    r"^(?:(?:const|unsigned|static|struct)\s+)*[A-Za-z_][\w:]*(?:<[^;=()]*>)?[\s*&]+"
    r"[A-Za-z_]\w*\s*(?:=|;|\(|\[|\{)")
NOT_MUTATED = re.compile(r"^(?:namespace|using|static_assert|constexpr|static const(?:expr)?|"
                         r"typedef|struct|SCHEDULE_POINT)\b")


@dataclass
class Mutant:
    number: int
    file: str
    line: int
    function: str
    kind: str
    change: str
    text: str  # of its line
    key: str = ""


@dataclass
class Edit:
    position: int
    end: int
    text: str
    rank: tuple


@dataclass
class Source:
    name: str
    text: str
    mask: str
    edits: list = field(default_factory=list)
    mutants: list = field(default_factory=list)


def blank_out(text):
    """The text without comments, directives and what stands in quotes, at the same places."""
    out = list(text)

    def blank(begin, end, keep_quotes):
        for i in range(begin, end):
            if text[i] != "\n" and not (keep_quotes and i in (begin, end - 1)):
                out[i] = "_" if keep_quotes else " "

    pattern = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])+'|"
                         r"^[ \t]*#(?:[^\n\\]|\\\n|\\.)*", re.S | re.M)
    for found in pattern.finditer(text):
        blank(found.start(), found.end(), found.group()[0] in "\"'")
    return "".join(out)


def match_bracket(mask, position):
    """Behind the bracket that belongs to the one at a position."""
    pairs = {"(": ")", "{": "}", "[": "]"}
    depth = 0
    opening = mask[position]
    for i in range(position, len(mask)):
        if mask[i] == opening:
            depth += 1
        elif mask[i] == pairs[opening]:
            depth -= 1
            if depth == 0:
                return i + 1
    raise ValueError("a bracket is not closed")


def without_template(head):
    """A function's head without the angle brackets of its template parameters."""
    found = re.match(r"\s*template\s*<", head)
    if not found:
        return head
    depth, i = 1, found.end()
    while depth > 0:
        depth += {"<": 1, ">": -1}.get(head[i], 0)
        i += 1
    return head[i:]


def functions(mask):
    """The bodies of functions, as name, head and the places of their braces."""
    found = []
    i = begin_of_head = 0
    while i < len(mask):
        character = mask[i]
        if character in ";}":
            begin_of_head = i + 1
        elif character == "(":
            i = match_bracket(mask, i)
            continue
        elif character == "{":
            head = mask[begin_of_head:i]
            before = head.rstrip()
            if re.search(r"\)(\s*(const|noexcept|override))*$", before):
                end = match_bracket(mask, i)
                plain = without_template(head)
                name = re.search(r"([~\w:]+)\s*\(", plain)
                found.append((name.group(1) if name else "?", plain, i, end))
                i = end
                begin_of_head = i
                continue
            if before.endswith("=") or before.endswith("]") or re.search(r"\benum\b", before):
                i = match_bracket(mask, i)
                continue
            begin_of_head = i + 1
        i += 1
    return found


class Maker:
    """Makes the mutants of one source."""

    def __init__(self, name, text, first_number, error_codes):
        self.source = Source(name, text, blank_out(text))
        self.mask = self.source.mask
        self.text = text
        self.number = first_number
        self.error_codes = error_codes
        self.function = ""
        self.function_place = (0, 0)
        self.not_mutated = []  # places

    # ---- Edits ----

    def prefix(self, position, extent, text):
        self.source.edits.append(Edit(position, position, text, (1, -extent)))

    def suffix(self, position, extent, text):
        self.source.edits.append(Edit(position, position, text, (0, extent)))

    def replace(self, begin, end, text):
        self.source.edits.append(Edit(begin, end, text, (2, 0)))

    def mutant(self, position, kind, change):
        number = self.number
        self.number += 1
        line = self.text.count("\n", 0, position) + 1
        text = self.text.splitlines()[line - 1].strip()
        self.source.mutants.append(
            Mutant(number, self.source.name, line, self.function, kind, change, text))
        return number

    def wrap(self, begin, end, before, after):
        self.prefix(begin, end - begin, before)
        self.suffix(end, end - begin, after)

    # ---- The walk through a function ----

    def skip_blanks(self, i):
        while self.mask[i].isspace():
            i += 1
        return i

    def block(self, i):
        i = self.skip_blanks(i + 1)
        while self.mask[i] != "}":
            i = self.skip_blanks(self.statement(i))
        return i + 1

    def statement(self, i):
        """Handles the statement that begins here, and returns the place behind it."""
        mask = self.mask
        label = re.compile(r"(?:case\b[^:]*(?:::[^:]*)*|default):(?!:)").match(mask, i)
        if label:
            self.not_mutated.append(label.span())
            return self.statement_behind_label(label.end())
        if mask[i] == "{":
            return self.block(i)
        control = re.compile(r"(if|while|for|switch)\b\s*").match(mask, i)
        if control:
            return self.controlled(control)
        if re.compile(r"else\b").match(mask, i):
            return self.statement(self.skip_blanks(i + 4))
        end = self.end_of_statement(i)
        self.simple(i, end)
        return end

    def statement_behind_label(self, i):
        i = self.skip_blanks(i)
        return i if self.mask[i] == "}" else self.statement(i)

    def controlled(self, control):
        begin = control.end()
        end = match_bracket(self.mask, begin)
        if control.group(1) in ("if", "while"):
            self.operands(begin + 1, end - 1)
        i = self.statement(self.skip_blanks(end))
        behind = self.skip_blanks(i)
        if control.group(1) == "if" and re.compile(r"else\b").match(self.mask, behind):
            return self.statement(self.skip_blanks(behind + 4))
        return i

    def end_of_statement(self, i):
        while self.mask[i] != ";":
            if self.mask[i] in "([":
                i = match_bracket(self.mask, i)
            elif self.mask[i] == "{":
                i = match_bracket(self.mask, i)
            else:
                i += 1
        return i + 1

    def lambdas(self, begin, end):
        for found in re.finditer(r"\[&\]\s*\{", self.mask[begin:end]):
            self.block(begin + found.end() - 1)

    def simple(self, begin, end):
        statement = self.mask[begin:end]
        if NOT_MUTATED.match(statement):
            self.not_mutated.append((begin, end))
            return
        self.lambdas(begin, end)
        if self.lock_or_scope(begin, end, statement):
            return
        if statement.startswith("return"):
            self.dropped_return(begin, end, statement)
        elif DECLARATION.match(statement):
            self.dropped_call(begin, end, statement)
        elif statement.strip() != ";" and statement not in ("break;", "continue;"):
            kind = "trace" if re.match(r"TRACE(_DATA)?\(", statement) else "statement"
            if MUTEX.match(statement):
                return  # see the locks of a function
            number = self.mutant(begin, kind, "dropped")
            # A line that nobody would see is not reached.
            name = "qpxIs" if kind == "statement" else "qpxTraces(clientAPITrace) && qpxIs"
            self.wrap(begin, end, "{ if (!(%s(%d))) " % (name, number), " }")
        elif statement in ("break;", "continue;"):
            number = self.mutant(begin, "statement", "dropped")
            self.wrap(begin, end, "{ if (!qpxIs(%d)) " % number, " }")

    def dropped_return(self, begin, end, statement):
        if statement == "return;":
            number = self.mutant(begin, "statement", "dropped")
            self.wrap(begin, end, "{ if (!qpxIs(%d)) " % number, " }")
            return
        found = re.match(r"return (.*);$", statement, re.S)
        # A condition ends where a conditional operator begins.
        if found and not re.search(r" \? ", statement):
            self.operands(begin + found.start(1), begin + found.end(1), alone=False)

    def dropped_call(self, begin, end, statement):
        found = re.match(r"int rc = (?=\w+(?:<[^;]*?>)?\()", statement)
        if found:
            number = self.mutant(begin, "statement", "call dropped")
            self.prefix(begin + found.end(), end, "qpxIs(%d) ? 0 : " % number)

    def lock_or_scope(self, begin, end, statement):
        scope = SCOPES.match(statement)
        if scope:
            is_lock = scope.group(1).endswith("Hold")
            number = self.mutant(begin, "lock" if is_lock else "statement",
                                 "not taken" if is_lock else "dropped")
            self.replace(begin, end, "QpxMaybe<%s> %s(%d);" % (*scope.groups(), number))
            return True
        guard = GUARD.match(statement)
        if not guard:
            return False
        if "ALREADY_HELD" not in statement:
            number = self.mutant(begin, "lock", "not taken")
            self.wrap(begin + guard.start(2), begin + guard.end(2), "qpxLock(%d, " % number, ")")
        return True

    def operands(self, begin, end, alone=True):
        """Operands of a condition that are no comparison: each is turned round."""
        places = [begin]
        i = begin
        while i < end:
            if self.mask[i] in "([{":
                i = match_bracket(self.mask, i)
                continue
            if self.mask[i:i + 2] in ("&&", "||"):
                places += [i, i + 2]
                i += 1
            i += 1
        places.append(end)
        if not alone and len(places) == 2:
            return
        for first, last in zip(places[0::2], places[1::2]):
            operand = self.mask[first:last]
            stripped = operand.strip()
            if not stripped or RELATION.search(" " + operand + " ") or stripped.startswith("!"):
                continue
            if "?" in stripped or "{" in stripped or stripped in ("true", "false"):
                continue
            first += len(operand) - len(operand.lstrip())
            last = first + len(stripped)
            number = self.mutant(first, "comparison", "turned round: " + one_line(stripped))
            self.wrap(first, last, "(qpxIs(%d) ^ static_cast<bool>(" % number, "))")

    # ---- What stands anywhere in a function ----

    def is_mutated(self, position):
        return not any(begin <= position < end for begin, end in self.not_mutated)

    def matches(self, pattern):
        begin, end = self.function_place
        for found in pattern.finditer(self.mask, begin, end):
            if self.is_mutated(found.start()):
                yield found

    def is_compared(self, begin, end):
        """Whether a comparison has it as an operand: that has mutants of its own."""
        return bool(re.search(r"(==|!=|<=|>=|\s<|\s>)\s+$", self.mask[max(0, begin - 12):begin]) or
                    re.match(r"\s+(==|!=|<=|>=|<|>)\s", self.mask[end:end + 12]))

    def is_in_index(self, begin):
        """Whether it stands in square brackets of a declaration, or in a template's brackets."""
        line = self.mask.rfind("\n", 0, begin) + 1
        before = self.mask[line:begin]
        if before.count("[") > before.count("]"):
            statement = before.strip()
            return bool(re.match(r"(static |const )*[\w:]+ \w+\[[^\]]*$", statement))
        return self.mask[begin - 1] == "<"

    def relations(self):
        for found in self.matches(RELATION):
            operator = found.group()
            numbers = [self.mutant(found.start(), "comparison", "%s to %s" % (operator, other))
                       for other in RELATIONS[operator]]
            self.replace(found.start(), found.end(),
                         "%s QpxCompared{%d} %s" % (operator, numbers[0], operator))

    def negations(self):
        for found in self.matches(NEGATION):
            number = self.mutant(found.start(), "comparison", "! dropped")
            self.replace(found.start(), found.end(), "qpxIs(%d) ^ !" % number)

    def ternaries(self):
        for found in self.matches(TERNARY):
            if self.is_compared(*found.span(1)):
                continue
            number = self.mutant(found.start(1), "comparison", "turned round: " + found.group(1))
            self.wrap(*found.span(1), "(qpxIs(%d) ^ static_cast<bool>(" % number, "))")

    def bounds(self):
        for found in self.matches(BOUND):
            name, given = found.groups()
            changes = {"min": "min to max", "max": "max to min", "clamp": "not clamped"}
            number = self.mutant(found.start(), "comparison", changes[name])
            given = "As<%s>" % given if given else ""
            self.replace(found.start(), found.end(),
                         "qpx%s%s(%d, " % (name.capitalize(), given, number))

    def numbers(self):
        for found in self.matches(NUMBER):
            if self.is_compared(*found.span()) or self.is_in_index(found.start()):
                continue
            down = found.group(1) == "1" and not re.search(
                r"[+-]= $", self.mask[found.start() - 4:found.start()])
            value = int(found.group(1), 0)
            number = self.mutant(found.start(), "off-by-one",
                                 "%s to %d" % (found.group(), value - 1 if down else value + 1))
            self.wrap(found.start(), found.end(), "(", (" - " if down else " + ") +
                      "qpxOne(%d))" % number)

    def named_sizes(self):
        for found in self.matches(NAMED_SIZE):
            if self.is_compared(*found.span()) or self.is_in_index(found.start()):
                continue
            number = self.mutant(found.start(), "off-by-one", found.group() + " + 1")
            self.wrap(found.start(), found.end(), "(", " + qpxOne(%d))" % number)

    def sizes(self):
        for found in self.matches(SIZEOF):
            call = self.mask[:self.open_bracket(found.start()) + 1]
            if not CALL_OF_SIZE.search(call[-40:]) or self.mask[found.end()] not in ",)":
                continue
            number = self.mutant(found.start(), "off-by-one", one_line(found.group()) + " - 1")
            self.wrap(found.start(), found.end(), "(", " - qpxOne(%d))" % number)

    def open_bracket(self, position):
        depth = 0
        while True:
            position -= 1
            if self.mask[position] == ")":
                depth += 1
            elif self.mask[position] == "(":
                if depth == 0:
                    return position
                depth -= 1

    def codes(self):
        for found in self.matches(ERROR_CODE):
            self.swap(found, self.error_codes[found.group()])
        for good, other in GOOD_CODES.items():
            for found in self.matches(re.compile(r"\b%s\b" % good)):
                self.swap(found, other)
        for family in FAMILIES:
            for i, name in enumerate(family):
                for found in self.matches(re.compile(r"(?<![\w:])%s\b(?!:)" % name)):
                    self.swap(found, family[(i + 1) % len(family)])

    def swap(self, found, other):
        if self.is_compared(*found.span()):
            return
        number = self.mutant(found.start(), "code", "%s to %s" % (found.group(), other))
        self.replace(found.start(), found.end(),
                     "(qpxIs(%d) ? %s : %s)" % (number, other, found.group()))

    def requests(self):
        for found in self.matches(REQUEST):
            end = found.end()
            if not found.group().endswith(")"):
                end = match_bracket(self.mask, self.mask.index("(", found.start()))
            number = self.mutant(found.start(), "lock", "not taken")
            self.wrap(found.start(), end, "(qpxIs(%d) ? 0 : " % number, ")")

    def mutexes(self):
        """A mutex that a function locks and unlocks is not taken by it; what does only one of the
        two is a statement as others are, but for the constructors of scopes."""
        calls = {}
        for found in self.matches(MUTEX):
            calls.setdefault(found.group(2), []).append(found)
        is_scope = self.function.lstrip("~").endswith("Hold")
        for found_here in calls.values():
            names = {"lock" if found.group(1).startswith("Take") else "unlock"
                     for found in found_here}
            if is_scope:
                continue
            if names == {"lock", "unlock"}:
                number = self.mutant(found_here[0].start(), "lock", "not taken")
                for found in found_here:
                    self.wrap(found.start(), found.end(), "{ if (!qpxIs(%d)) " % number, " }")
                continue
            for found in found_here:
                taken = found.group(1).startswith("Take")
                number = self.mutant(found.start(), "lock" if taken else "statement",
                                     "not taken" if taken else "dropped")
                self.wrap(found.start(), found.end(), "{ if (!qpxIs(%d)) " % number, " }")

    # ---- All of it ----

    def make(self):
        for name, head, begin, end in functions(self.mask):
            if "constexpr" in head:
                continue
            self.function = name
            self.function_place = (begin, end)
            self.not_mutated = []
            self.block(begin)
            for step in (self.relations, self.negations, self.ternaries, self.bounds, self.numbers,
                         self.named_sizes, self.sizes, self.codes, self.requests, self.mutexes):
                step()
        return self.source


def one_line(text):
    return re.sub(r"\s+", " ", text)


def name_mutants(mutants):
    """Gives each a key that stays the same while its line does, wherever that stands."""
    seen = {}
    for mutant in sorted(mutants, key=lambda m: m.number):
        key = "%s %s: %s: %s" % (mutant.file, mutant.function, mutant.change, mutant.text)
        seen[key] = seen.get(key, 0) + 1
        mutant.key = key if seen[key] == 1 else "%s (%d)" % (key, seen[key])


def swapped_codes(texts):
    """For each error code in the texts another one of them."""
    codes = {}
    for text in texts:
        for found in ERROR_CODE.finditer(blank_out(text)):
            codes.setdefault(found.group(1), set()).add(found.group())
    swapped = {}
    for family, names in codes.items():
        row = sorted(names | {family + "_SYSTEM_ERROR"})
        for i, name in enumerate(row):
            swapped[name] = row[(i + 1) % len(row)]
    return swapped


def apply_edits(source, left_out=frozenset()):
    """The text with every mutant in it, but for those of the lines that are left out."""
    text = source.text
    out, at = [], 0
    for edit in sorted(source.edits, key=lambda e: (e.position, e.rank)):
        if text.count("\n", 0, edit.position) + 1 in left_out:
            continue
        out += [text[at:edit.position], edit.text]
        at = edit.end
    out.append(text[at:])
    return '#line 1 "%s"\n' % source.name + "".join(out)


def make_all(files):
    """The sources, by name, with their mutants numbered from 1 on."""
    error_codes = swapped_codes(files.values())
    sources, number = [], 1
    for name, text in files.items():
        maker = Maker(name, text, number, error_codes)
        sources.append(maker.make())
        number = maker.number
    name_mutants([mutant for source in sources for mutant in source.mutants])
    return sources
