"""The small changes of one source file: where each lies, what it becomes, and what it is called.

A change is named by its file, the function (or constant, or struct) that it is in, and the text of
its lines before and after it; of several that are named alike each has its number in the function.
"""
import collections
import re

# name -> what it becomes
SWAPS = {
    "F_WRLCK": "F_RDLCK", "F_UNLCK": "F_RDLCK", "F_SETLKW": "F_SETLK", "SEEK_SET": "SEEK_END",
    "O_RDWR": "O_RDONLY", "IPC_CREAT": "IPC_EXCL", "SOCK_STREAM": "SOCK_DGRAM",
    "SC_LIST_OK": "SC_LIST_REJECTED", "SC_LIST_REJECTED": "SC_LIST_OK",
    "SC_LIST_DEL_RANGE": "SC_LIST_MOD_RANGE", "SC_LIST_MOD_RANGE": "SC_LIST_DEL_RANGE",
    "SC_LIST_BAD_OP": "SC_LIST_NO_LOCK", "SC_LIST_NO_LOCK": "SC_LIST_BAD_OP",
    "LIST_OP_ADD": "LIST_OP_MODIFY", "LIST_OP_MODIFY": "LIST_OP_ADD", "LIST_OP_DEL": "3",
    "LIST_OP_DEL_ALL": "4", "SC_TEXT_KEY": "SC_BYTES_KEY", "SC_BYTES_KEY": "SC_TEXT_KEY",
    "kNetworkEvents": "kNoEvents", "kNoEvents": "kNetworkEvents", "kApEvents": "kNetworkEvents",
    "kPlainHeader": "kUsersHeader", "kUsersHeader": "kPlainHeader",
    "true": "false", "false": "true", "nullptr": "block",
    "strncasecmp": "strncmp", "int8_t": "uint8_t", "int16_t": "uint16_t", "stderr": "stdout",
    "puts": "printf", "printf": "puts", "continue": "break",
    "Conversion::kBytes": "Conversion::kSignedHalf", "kFree": "0",
}
# Of the tools besides: their exit statuses, and what their system calls are asked for.
TOOL_SWAPS = {
    "kOk": "kRefused", "kRefused": "kOk", "kUsage": "kRefused", "kNoArea": "kRefused",
    "O_RDONLY": "O_RDWR", "O_CREAT": "0", "O_EXCL": "0", "O_TRUNC": "0", "O_APPEND": "0",
    "O_CLOEXEC": "0", "O_NOFOLLOW": "0", "O_NONBLOCK": "0", "O_DIRECTORY": "0", "break": "continue",
    "SIGINT": "SIGUSR1", "SIGTERM": "SIGUSR1", "SIGHUP": "SIGUSR1", "SIGPIPE": "SIGUSR1",
    "SIGCHLD": "SIGUSR1", "SIG_DFL": "SIG_IGN", "SIG_IGN": "SIG_DFL", "strcasecmp": "strcmp",
    "EINTR": "EIO", "ENOENT": "EIO", "EAGAIN": "EIO", "F_SETLK": "F_SETLKW", "F_RDLCK": "F_WRLCK",
}
OPERATORS = [
    (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "), (" == ", " != "),
    (" != ", " == "), (" && ", " || "), (" || ", " && "), (" + ", " - "), (" - ", " + "),
    (" * ", " + "), (" | ", " & "), (" & ", " | "), (" ^ ", " | "), (" >> ", " << "),
    (" << ", " >> "), ("++", "--"), ("--", "++"), (" = ", " += "), (" += ", " = "), ("!", ""),
]
# Where a line ends in one.
TOOL_OPERATORS = [(r"&&$", "||"), (r"\|\|$", "&&"), (r"(?<!\|)\|$", "&"), (r"\? (?=[^:]* : )", "? !")]

# A statement on a line of its own. What only the compiler reads is none.
SIMPLE = re.compile(r"^(\s+)(?!\s|using\b|(?:default|case [^:]*): break;|(?:static )?constexpr\b|friend\b"
                    r"|SC_(SIZE|OFFSET|MEMBER|LOCKS?)\b)[^{}]*;\s*$")
# The order of declarations does not matter, but that of locks does.
DECLARATION = re.compile(r"^\s+(?!ByteLock|LockFile)(?:[\w:<>]+[&*]? )+[&*]?\w+( =|;|\()")
# What stands before one of these is left out rather than put behind it.
LEAVES = re.compile(r"\s+(return|break|continue)\b")
# Of the tools only calls are put in another order, and not what decides.
CALL = re.compile(r"\s+[\w:.>-]+\(")
DECIDES = re.compile(r"\s+(if|for|while|else|case)\b")
ASSIGNMENT = re.compile(r"^\s*(?!\.)\S+ = ")
# What only refuses to compile.
REFUSALS = (r"(?:member_does_not_fit_its_column|members_overlap|row_has_no_room_left)"
            r"\(\);")
GUARDS = (r"static_assert\(.*?\);|\bif \([^;{}]*\) (?:\{\s*%s\s*\}|\s*%s)|[^;{}]*= delete;"
          % (REFUSALS, REFUSALS))

KEYWORDS = {"if", "for", "while", "switch", "do", "else", "return", "catch", "sizeof"}
TYPES = re.compile(r"^(?:template\s*<.*?>\s*)?(?:typedef\s+)?(struct|class|union|enum|namespace)\b"
                   r"(?:\s+class\b)?\s*([\w:]*)|^extern\b")
CONSTANT = re.compile(r"(\w+)(?:\[[^\]]*\])*\s*(?:=|$)")


Change = collections.namedtuple("Change", "path start end new first last function old changed")


def blank(match):
    return re.sub(r"[^\n]", " ", match[0])


def blank_comments(text):
    """The text with comments, guards and preprocessor lines blanked, places kept."""
    text = re.sub(r'("(?:\\.|[^"\\\n])*")|/\*.*?\*/|//[^\n]*',
                  lambda m: m[0] if m[1] else blank(m), text, flags=re.S)
    text = re.sub(GUARDS, blank, text, flags=re.S)
    return re.sub(r"^#(?!define).*$", blank, text, flags=re.M)


def blank_strings(code):
    """The code with the letters of its texts blanked, places kept."""
    code = re.sub(r"'(?:\\.|[^'\\\n])'", lambda m: "'" + "\0" * (len(m[0]) - 2) + "'", code)
    return re.sub(r'"(\\.|[^"\\\n])*"', lambda m: '"' + "\0" * (len(m[0]) - 2) + '"', code)


class Structure:
    """Statements and definitions of a source, by their places."""

    def __init__(self, code):
        # The body of a macro is no statement.
        self.bare = re.sub(r"^#define(?:.*\\\n)*.*$", blank, blank_strings(code), flags=re.M)
        self.statements = []  # (start, end) with the semicolon
        self.conditions = []  # (start, end) of what stands between the parentheses
        self.elements = []  # (start, end) of elements of initializers, with the comma
        self.definitions = []  # (start, end, name), outer ones first
        self.read()
        self.definitions.sort(key=lambda d: (d[0], -d[1]))

    def read(self):
        bare = self.bare
        blocks = []  # (where the header starts, name or None, is a function)
        nesting = []  # parentheses, and braces of initializers: (character, place, element's start)
        start = None
        for at, letter in enumerate(bare):
            if start is None:
                if letter in " \n\t;":
                    continue
                if letter == "}":
                    self.close(blocks, at)
                    continue
                start = at
            if letter in "([":
                nesting.append((letter, at, at + 1))
            elif letter in ")]" and nesting:
                opened, place, _ = nesting.pop()
                if opened == "(":
                    self.note_condition(bare[start:place], place + 1, at)
            elif letter == "{" and (nesting or self.initializes(bare[start:at])):
                nesting.append((letter, at, at + 1))
            elif letter == "{":
                blocks.append(self.block(bare[start:at], start, blocks))
                start = None
            elif letter == "}" and nesting:
                opened, place, element = nesting.pop()
                if opened == "{" and bare[element:at].strip():
                    self.note_element(element, at)
            elif letter == "}":
                self.close(blocks, at)
                start = None
            elif letter == "," and nesting and nesting[-1][0] == "{":
                opened, place, element = nesting.pop()
                self.note_element(element, at + 1)
                nesting.append((opened, place, at + 1))
            elif letter == ";" and not nesting:
                self.statements.append((start, at + 1))
                name = CONSTANT.search(re.split(r"[({;]", bare[start:at])[0].split("=")[0].strip())
                if name and not any(function for _, _, function in blocks):
                    self.definitions.append((start, at + 1, self.inside(blocks, name[1])))
                start = None
            elif letter == ":" and not nesting and re.match(
                    r"(case\b.*|default|public|private|protected)$", bare[start:at], re.S) and (
                        bare[at + 1] != ":" and bare[at - 1] != ":"):
                start = None

    def note_condition(self, before, start, end):
        if re.search(r"\b(?:if|while)(?: constexpr)?\s*$", before) and "constexpr" not in before[-10:]:
            # What stands before it is a declaration.
            start += self.bare[start:end].rfind(";") + 1
            self.conditions.append((start, end))

    def note_element(self, start, end):
        text = self.bare[start:end]
        self.elements.append((start + len(text) - len(text.lstrip()), end))

    @staticmethod
    def initializes(header):
        header = header.strip()
        if not header or TYPES.match(header):
            return False
        return not re.search(r"[):]$|\b(const|override|noexcept|else|do|try|mutable)$", header)

    @staticmethod
    def inside(blocks, name):
        outer = [block[1] for block in blocks if block[1]]
        return "::".join(outer[-1:] + [name]) if outer else name

    def block(self, header, start, blocks):
        kind = TYPES.match(header.strip())
        if kind:
            named = kind[1] and kind[1] != "namespace" and kind[2]
            return start, self.inside(blocks, kind[2]) if named else None, False
        if any(function for _, _, function in blocks):
            return start, None, False
        name = re.search(r"([~\w:]+|operator\s*\S+?)\s*\(", header)
        if name and name[1] not in KEYWORDS:
            return start, self.inside(blocks, name[1]), True
        return start, None, False

    def close(self, blocks, at):
        if blocks:
            start, name, _ = blocks.pop()
            if name:
                self.definitions.append((start, at + 1, name))

    def definition_at(self, place):
        """The innermost definition around a place: (start, end, name)."""
        found = (0, len(self.bare), "-")
        for definition in self.definitions:
            if definition[0] <= place < definition[1]:
                found = definition
        return found

    def statement_at(self, place):
        """What is executed as one there: the shortest statement or condition around it."""
        around = [s for s in self.statements + self.conditions if s[0] <= place < s[1]]
        return min(around, key=lambda s: s[1] - s[0], default=None)


class Source:
    """A source file and its changes. Those of the tools are of more kinds than the library's, which
    is made of rows and of few statements."""

    def __init__(self, path, text, of_tools):
        self.path, self.text, self.of_tools = path, text, of_tools
        self.lines = text.split("\n")
        self.starts = [0]
        for line in self.lines:
            self.starts.append(self.starts[-1] + len(line) + 1)
        self.code = blank_comments(text)
        self.structure = Structure(self.code)
        self.macros = {}
        for match in re.finditer(r"^#define (\w+)(?:.*\\\n)*.*$", self.code, re.M):
            self.macros.update(dict.fromkeys(
                range(self.line_of(match.start()), self.line_of(match.end()) + 1), match[1]))

    def line_of(self, place):
        low, high = 0, len(self.starts)
        while high - low > 1:
            middle = (low + high) // 2
            low, high = (middle, high) if self.starts[middle] <= place else (low, middle)
        return low

    def changes(self):
        done, found = set(), []
        for start, end, new in self.edits():
            first, last = self.line_of(start), self.line_of(max(start, end - 1))
            begin, finish = self.starts[first], self.starts[last + 1] - 1
            changed = self.text[begin:start] + new + self.text[end:finish]
            old = self.text[begin:finish]
            if changed == old or (first, last, changed) in done:
                continue
            done.add((first, last, changed))
            place = start + len(self.text[start:end]) - len(self.text[start:end].lstrip())
            function = self.macros.get(first) or self.structure.definition_at(place)[2]
            found.append(Change(self.path, start, end, new, first + 1, last + 1, function,
                                joined(old), joined(changed) or "(nothing)"))
        return sorted(found, key=lambda change: (change.first, change.start))

    def edits(self):
        code = self.code.split("\n")
        for n, line in enumerate(code):
            for start, end, new in self.edits_of_line(n, line):
                yield self.starts[n] + start, self.starts[n] + end, new
            after = SIMPLE.match(blank_strings(code[n + 1])) if n + 1 < len(code) else None
            simple = SIMPLE.match(blank_strings(line))
            if simple and after and after[1] == simple[1] and not (
                    DECLARATION.match(line) or DECLARATION.match(code[n + 1])
                    or LEAVES.match(code[n + 1])) and (
                        not self.of_tools or self.is_order_of_calls(line, code[n + 1])):
                yield (self.starts[n], self.starts[n + 2] - 1,
                       self.lines[n + 1] + "\n" + self.lines[n])
        if self.of_tools:
            yield from self.edits_of_structure()

    @staticmethod
    def is_order_of_calls(line, after):
        decides = DECIDES.match(line) or DECIDES.match(after)
        return not decides and (CALL.match(line) or CALL.match(after))

    def edits_of_line(self, n, line):
        bare = re.sub(r'"(\\.|[^"\\])*"', lambda m: '"' + "\0" * (len(m[0]) - 2) + '"', line)
        for m in re.finditer(r"(?<![\w.'])(0x[0-9a-f]+|\d+)(?![\w.'])", bare):
            value = int(m[0], 8 if re.match(r"0\d", m[0]) else 0)
            yield m.start(), m.end(), str(value + 1)
            if value > (0 if self.of_tools else 1):
                yield m.start(), m.end(), str(value - 1)
        for m in re.finditer(r"'[^'\\]'", bare):
            yield m.start(), m.end(), "'%s'" % chr(ord(m[0][1]) ^ 1)
        for m in re.finditer(r'"\0+"', bare):
            middle = (m.start() + m.end()) // 2
            yield middle, middle + 1, chr(ord(self.lines[n][middle]) ^ 1)
            escaped = self.of_tools and self.lines[n][m.end() - 3] == "\\"
            yield m.end() - 2 - escaped, m.end() - 1, ""
        for old, new in {**SWAPS, **(TOOL_SWAPS if self.of_tools else {})}.items():
            for m in re.finditer(r"(?<![\w:])" + re.escape(old) + r"(?!\w)", bare):
                yield m.start(), m.end(), new
        for m in re.finditer(r"\bSC_CODE_\w+|\bSC_KEY_\w+", bare):
            if "=" not in bare:
                yield m.start(), m.end(), m[0] + " + 1"
        if not bare.lstrip().startswith(("template", "#define", "#include")):
            for old, new in OPERATORS:
                if old == " = " and not ASSIGNMENT.match(bare):
                    continue
                for m in re.finditer(re.escape(old), bare):
                    yield m.start(), m.end(), new
            for old, new in TOOL_OPERATORS if self.of_tools else ():
                for m in re.finditer(old, bare):
                    yield m.start(), m.end(), new
        if SIMPLE.match(bare) or re.match(r"\s+SC_(MEMBER|LOCKS?)\(.*\),?$", bare):
            yield 0, len(self.lines[n]), ""

    def edits_of_structure(self):
        """A statement of any length left out, a condition turned round, another status returned, an
        element of a row or a row left out."""
        bare = self.structure.bare
        for start, end in self.structure.statements:
            statement = bare[start:end]
            status = re.search(r"\breturn ([^;]+);$", statement, re.S)
            if status and not re.fullmatch(r"true|false|nullptr|-?\d+|k[A-Z]\w*", status[1]):
                value = start + status.start(1), start + status.end(1)
                yield (*value, "kOk" if status[1] == "status" else
                       "!(%s)" % self.text[value[0]:value[1]])
            alone = statement == self.text[self.starts[self.line_of(start)]:self.starts[
                self.line_of(start) + 1]].strip()
            if not alone and "\n" not in statement and CALL.match(" " + statement):
                yield start, end, ";"
            if "\n" in statement and not re.match(
                    r"(using|typedef|friend|constexpr|static constexpr)\b", statement) and (
                        self.structure.definition_at(start)[0] != start):
                yield start, end, ""
        for start, end in self.structure.conditions:
            condition = self.text[start:end]
            inner = condition.lstrip()
            start += len(condition) - len(inner)
            yield start, end, "!(%s)" % inner
        for start, end in self.structure.elements:
            if bare[start:start + 1] == "{" or self.lines[self.line_of(start)].strip() == (
                    self.text[start:end].strip()):
                yield start, end, ""


def joined(text):
    return " / ".join(line.strip() for line in text.split("\n") if line.strip())


def named(changes):
    """(key, change) of each, in which the key names one change and no other."""
    def key(change, number=""):
        return "%s %s%s: %s -> %s" % (change.path, change.function, number, change.old,
                                      change.changed)

    alike = collections.Counter(map(key, changes))
    seen = collections.Counter()
    result = []
    for change in changes:
        plain = key(change)
        seen[plain] += 1
        number = " [%d/%d]" % (seen[plain], alike[plain]) if alike[plain] > 1 else ""
        result.append((key(change, number), change))
    return result


def shown(change):
    """As it is reported, with its line."""
    return "%s:%d %s: %s -> %s" % (change.path, change.first, change.function, change.old,
                                   change.changed)


class WrongEntries(Exception):
    pass


def read_equivalent(text, keys):
    """The changes that an entry of this text excuses. Each entry excuses one, and gives a reason."""
    excused, problems = set(), []
    lines = [line for line in text.split("\n") if line.strip() and not line.startswith("#")]
    plain = collections.Counter(re.sub(r" \[\d+/\d+\]: ", ": ", key, count=1) for key in keys)
    for n, line in enumerate(lines):
        if line.startswith(" "):
            continue
        if n + 1 == len(lines) or not lines[n + 1].startswith(" "):
            problems.append("gives no reason: " + line)
        if line in excused:
            problems.append("stands twice: " + line)
        elif line in keys:
            excused.add(line)
        elif plain[line] > 1:
            problems.append("matches %d changes, and has to say which, as in \"[1/%d]:\": %s"
                            % (plain[line], plain[line], line))
        else:
            problems.append("matches no change: " + line)
    if problems:
        raise WrongEntries("\n".join(problems))
    return excused
