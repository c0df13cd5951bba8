"""Random structs in C, and a program that fills them and says where each member is and what it holds."""

import itertools

NUMBERS = ["char", "signed char", "unsigned char", "short", "unsigned short", "int", "unsigned",
           "long long", "unsigned long long", "int8_t", "uint8_t", "int16_t", "uint16_t", "int32_t",
           "uint32_t", "int64_t", "uint64_t", "word_t", "_Bool", "volatile int", "LONG", "SIZE"]
BYTES = {"signed char", "unsigned char", "int8_t", "uint8_t"}
FLOATS = ["float", "double"]
MOST_NUMBERS = 200  # in a struct: each is some lines of the program
BIT_BASES = [("unsigned", 32), ("int", 32), ("unsigned char", 8), ("signed char", 8), ("short", 16),
             ("unsigned short", 16), ("long long", 64), ("unsigned long long", 64), ("_Bool", 1),
             ("uint32_t", 32)]

# Of a 64-bit object the importer refuses long and size_t.
HEADER = """#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#if __SIZEOF_LONG__ == 4
#define LONG long
#define SIZE size_t
#else
#define LONG int
#define SIZE unsigned
#endif
typedef const unsigned word_base_t;
typedef uint16_t word_t;
"""

PROGRAM = """
static unsigned long long seed = %d;
static unsigned random_byte(void) {
  seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
  return (unsigned)(seed >> 56);
}
static unsigned long long random_word(void) {
  unsigned long long word = 0;
  for (int i = 0; i < 8; i++) word = word << 8 | random_byte();
  return word;
}
static void noise(void* to, size_t size) {
  for (size_t i = 0; i < size; i++) ((unsigned char*)to)[i] = (unsigned char)random_byte();
}
static void hex(const void* from, size_t at, size_t size) {
  for (size_t i = 0; i < size; i++) printf("%%02x", ((const unsigned char*)from)[at + i]);
}
"""


class Struct:
    def __init__(self, name, kind, members, attributes):
        self.name = name
        self.kind = kind  # struct or union
        self.members = members
        self.attributes = attributes

    def body(self):
        return "%s%s {\n%s}" % (self.kind, self.attributes,
                                "".join("  %s;\n" % member.declaration for member in self.members))


class Member:
    """declaration: as in C. kind: number, enum, text, bytes, float, bit, struct, or none for what has no
    name."""

    def __init__(self, declaration, kind, name=None, dimensions=(), struct=None):
        self.declaration = declaration
        self.kind = kind
        self.name = name
        self.dimensions = dimensions
        self.struct = struct


class Generator:
    def __init__(self, random):
        self.random = random
        self.declarations = []
        self.structs = []
        self.enums = []
        self.count = 0

    def name(self, prefix):
        self.count += 1
        return "%s%d" % (prefix, self.count)

    def make(self, name):
        """A struct of this name, and what it is made of, into the declarations."""
        while True:
            declared, enums = len(self.declarations), len(self.enums)
            made = self.struct(name, 0, "union" if self.random.random() < 0.1 else "struct")
            if sum(len(expressions) for _, expressions, _ in leaves(made, "", "v")) <= MOST_NUMBERS:
                break
            del self.declarations[declared:], self.enums[enums:]
        body = made.body().replace(made.kind + made.attributes, "%s%s %s" % (made.kind, made.attributes, name),
                                   1)
        self.declarations.append(body + ";\n")
        self.structs.append(made)
        return made

    def struct(self, name, depth, kind):
        random = self.random
        attributes = []
        if random.random() < 0.4:
            attributes.append("packed")
        if random.random() < 0.15:
            attributes.append("aligned(%d)" % random.choice((2, 4, 8, 16)))
        is_reversed = random.random() < 0.25
        members = [self.member(depth, is_reversed) for _ in range(random.randint(1, 9 if depth == 0 else 4))]
        if is_reversed:
            # The compiler says the order of a struct at its numbers: there has to be one.
            attributes.append('scalar_storage_order("big-endian")')
            members.append(self.number(["uint32_t"], ()))
        elif not any(member.name for member in members):
            members.append(self.number(["int"], ()))
        text = " __attribute__((%s))" % ", ".join(attributes) if attributes else ""
        return Struct(name, kind, members, text)

    def dimensions(self, most=3):
        return tuple(self.random.randint(1, 4)
                     for _ in range(self.random.choice((0, 0, 0, 1, 1, 2, 3)[:most * 2 + 1])))

    def declaration(self, base, name, dimensions):
        """Of a member, perhaps with a typedef for its inner arrays."""
        if dimensions and self.random.random() < 0.3:
            inner, tag = self.random.randrange(len(dimensions)), self.name("a")
            self.declarations.append("typedef %s %s%s;\n" % (base, tag, suffix_of(dimensions[inner:])))
            base, dimensions = tag, dimensions[:inner]
        return "%s %s%s" % (base, name, suffix_of(dimensions))

    def number(self, types, dimensions):
        base = self.random.choice(types)
        name = self.name("m")
        declaration = self.declaration(base, name, dimensions)
        if dimensions and base in BYTES:
            return Member(declaration, "bytes", name, dimensions)
        if dimensions and base == "char":
            return Member(declaration, "text", name, dimensions)
        kind = "float" if base in FLOATS else "number"
        return Member(declaration, kind, name, dimensions)

    def member(self, depth, is_reversed):
        random = self.random
        which = random.random()
        if which < 0.35 or depth > 2 and which > 0.75:
            # In a struct of the other order the compiler leaves the names of typedefs out.
            types = [each for each in NUMBERS if not (is_reversed and "int64" in each)]
            return self.number(types, self.dimensions())
        if which < 0.4:
            return self.number(FLOATS, self.dimensions())
        if which < 0.45:
            return self.number(["char", "uint8_t", "int8_t"], self.dimensions() or (random.randint(1, 9),))
        if which < 0.55:
            name, enum, dimensions = self.name("m"), self.enum(), self.dimensions()
            return Member(self.declaration(enum, name, dimensions), "enum", name, dimensions)
        if which < 0.75:
            return self.bit_field()
        if which < 0.78:
            return Member("%s : %d" % (random.choice(("int", "unsigned")), random.randint(0, 9)), None)
        kind = random.choice(("struct", "struct", "union"))
        if which < 0.86:  # without a name: its members are the outer's
            inner = self.struct(None, depth + 1, kind)
            return Member(inner.body(), "struct", None, (), inner)
        name, dimensions = self.name("m"), self.dimensions()
        suffix = suffix_of(dimensions)
        inner = self.struct(None, depth + 1, kind)
        if which < 0.92:  # a type without a name
            return Member("%s %s%s" % (inner.body(), name, suffix), "struct", name, dimensions, inner)
        tag = self.name("t")
        if random.random() < 0.5:
            self.declarations.append("typedef %s %s;\n" % (inner.body(), tag))
            return Member("%s %s%s" % (tag, name, suffix), "struct", name, dimensions, inner)
        body = inner.body().replace(kind + inner.attributes, "%s%s %s" % (kind, inner.attributes, tag), 1)
        self.declarations.append(body + ";\n")
        return Member("%s %s %s%s" % (kind, tag, name, suffix), "struct", name, dimensions, inner)

    def enum(self):
        """The name of an enum's type."""
        random = self.random
        if self.enums and random.random() < 0.5:
            return random.choice(self.enums)
        tag = self.name("e")
        signed = random.random() < 0.3
        most = random.choice((3, 200, 60000, 1 << 31, 1 << 40))
        values = sorted({random.randint(-most // 2 if signed else 0, most - 1) for _ in range(4)} |
                        {0} | ({-1} if signed else set()))
        packed = " __attribute__((packed))" if random.random() < 0.3 else ""
        rows = ", ".join("%s_%d = %dLL" % (tag, i, value) for i, value in enumerate(values))
        if random.random() < 0.5:
            made = "enum %s" % tag
            self.declarations.append("enum%s %s {%s};\n" % (packed, tag, rows))
        else:
            made = "%s_t" % tag
            self.declarations.append("typedef enum%s {%s} %s_t;\n" % (packed, rows, tag))
        self.enums.append(made)
        return made

    def bit_field(self):
        name = self.name("b")
        if self.random.random() < 0.15:
            return Member("%s %s : %d" % (self.enum(), name, self.random.randint(1, 8)), "bit", name)
        base, most = self.random.choice(BIT_BASES)
        width = self.random.randint(1, most)
        return Member("%s %s : %d" % (base, name, width), "bit", name)


def leaves(struct, path, expression):
    """(overlay's name, C expressions of its numbers, kind) of each member, nested ones too."""
    for member in struct.members:
        if member.kind is None:
            continue
        if member.kind == "struct" and member.name is None:
            yield from leaves(member.struct, path, expression)
            continue
        name, here = path + member.name, "%s.%s" % (expression, member.name)
        counts = member.dimensions
        if member.kind == "struct":
            for suffix in indexes(counts):
                yield from leaves(member.struct, name + suffix + ".", here + suffix)
        elif member.kind in ("text", "bytes"):
            for suffix in indexes(counts[:-1]):
                yield name + suffix, [here + suffix], member.kind
        elif member.kind == "number" and counts:
            for suffix in indexes(counts[:-1]):
                yield name + suffix, [here + suffix + last for last in indexes(counts[-1:])], "number"
        else:
            for suffix in indexes(counts):
                yield name + suffix, [here + suffix], member.kind


def suffix_of(counts):
    return "".join("[%d]" % count for count in counts)


def indexes(counts):
    return [suffix_of(of_all) for of_all in itertools.product(*map(range, counts))]


def printer(struct):
    """The function that fills a struct of this type and prints it."""
    tag = "%s %s" % (struct.kind, struct.name)
    fill, show = [], []
    for name, expressions, kind in leaves(struct, "", "v"):
        first = expressions[0]
        place = "offsetof(%s, %s)" % (tag, first[2:])
        if kind in ("text", "bytes", "float"):
            show.append('printf("%s %s %%u %%u ", (unsigned)%s, (unsigned)sizeof(%s)); hex(&v, %s, '
                        'sizeof(%s)); puts("");' % ("bytes" if kind == "float" else kind, name, place, first,
                                                    place, first))
            continue
        fill += ["%s = (__typeof__(%s + 0))random_word();" % (each, each) for each in expressions]
        if kind == "bit":
            show.append('printf("bit %s - - ");' % name)
        else:
            row = "%u * (unsigned)sizeof(%s)" % (len(expressions), first)
            show.append('printf("%%s %s %%u %%u ", %s, (unsigned)%s, %s);' % (
                name, '"enum"' if kind == "enum" else
                '((__typeof__(%s))-1 < (__typeof__(%s))1 ? "signed" : "unsigned")' % (first, first),
                place, row))
        for number, each in enumerate(expressions):
            comma = ',' if number else ''
            show.append('if (%s < 0) printf("%s%%lld", (long long)%s); '
                        'else printf("%s%%llu", (unsigned long long)%s);' % (each, comma, each, comma, each))
        show.append('puts("");')
    return "static void show_%s(void) {\n  static %s v;\n  noise(&v, sizeof v);\n%s\n%s\n" % (
        struct.name, tag, "\n".join("  " + line for line in fill), "\n".join("  " + line for line in show)) + \
        '  printf("all %s %%u - ", (unsigned)sizeof v);\n  hex(&v, 0, sizeof v);\n  puts("");\n}\n' % struct.name


def program(generator, seed):
    """The whole source: types, a variable of each, and the program that prints them."""
    return HEADER + "".join(generator.declarations) + PROGRAM % seed + \
        "".join(printer(struct) for struct in generator.structs) + "int main(void) {\n" + \
        "".join("  show_%s();\n" % struct.name for struct in generator.structs) + "}\n"
