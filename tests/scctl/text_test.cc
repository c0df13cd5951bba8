/* Texts as scctl reads and shows them: letters, escapes, words of a line, JSON in both directions.
 * What a line means is what a real shell makes of it. */
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "store/json.h"
#include "store/letters.h"
#include "store/value.h"
#include "scctl/words.h"
#include "support/program.h"
#include "support/random.h"
#include "support/world.h"

namespace sc_test {
namespace {

using store::JsonKind;
using store::JsonReader;
using store::Letter;
using store::next_letter;

std::string shown(const std::string& text) {
  store::Text to;
  to.add_shown(text.data(), text.size());
  return {to.c_str(), to.size()};
}

std::string utf8(uint32_t code) {
  if (code < 0x80) return {static_cast<char>(code)};
  std::string tail;
  uint32_t first = 0x3f;
  while (code > first) {
    tail.insert(tail.begin(), static_cast<char>(0x80 | (code & 0x3f)));
    code >>= 6;
    first >>= 1;
  }
  return static_cast<char>((~first << 1 & 0xff) | code) + tail;
}

std::string escaped(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    char escape[8];
    snprintf(escape, sizeof escape, "\\x%02x", static_cast<uint8_t>(c));
    text += escape;
  }
  return text;
}

bool is_hex(char c) { return strchr("0123456789abcdefABCDEF", c) != nullptr && c != '\0'; }

/* What was shown. */
std::string meant(const std::string& text) {
  std::string bytes;
  for (size_t n = 0; n < text.size(); ++n) {
    if (text[n] == '\\' && n + 3 < text.size() && text[n + 1] == 'x' && is_hex(text[n + 2]) &&
        is_hex(text[n + 3])) {
      bytes += static_cast<char>(std::stoi(text.substr(n + 2, 2), nullptr, 16));
      n += 3;
    } else {
      bytes += text[n];
    }
  }
  return bytes;
}

/* Bytes as stores and files have them, good and bad. */
std::string random_text(Random& random) {
  static const std::vector<std::string> kPieces = {"a",
                                                   "Z",
                                                   "7",
                                                   " ",
                                                   "'",
                                                   "\"",
                                                   "\\",
                                                   "\\x",
                                                   "\\x4",
                                                   "\\x41",
                                                   "x1b",
                                                   "$",
                                                   "`",
                                                   "\n",
                                                   "\t",
                                                   "\x1b[2J",
                                                   "\x7f",
                                                   "\xc2\x9b",
                                                   "\x9b",
                                                   "\xff",
                                                   "\xc3",
                                                   "\xa9",
                                                   "\xc3\xa9",
                                                   "\xe2\x80\xae",
                                                   "\xe2\x80\xa8",
                                                   "\xe4\xb8\xad",
                                                   "\xed\xa0\x80",
                                                   "\xf0\x9f\x98\x80",
                                                   "\xf4\x90\x80\x80",
                                                   "\xc0\xaf",
                                                   "\xe2\x80",
                                                   "\xf0\x9f",
                                                   "/",
                                                   "\b",
                                                   "\f",
                                                   "\r",
                                                   std::string(1, '\0')};
  std::string text;
  for (uint32_t n = random.below(8); n > 0; --n) {
    text += kPieces[random.below(static_cast<uint32_t>(kPieces.size()))];
  }
  return text;
}

/* ---- text that grows ---- */

TEST(GrowingText, WhatIsPrinted_IsThereWholeWhateverItsLength) {
  for (size_t before = 0; before < 130; ++before) {
    for (size_t size = 0; size < 300; ++size) {
      const std::string first(before, 'a'), second(size, 'b');
      store::Text text;
      text.add(first.data(), first.size());
      text.print("%s", second.c_str());
      ASSERT_EQ(text.c_str(), first + second);
      ASSERT_EQ(text.size(), before + size);
    }
  }
}

/* ---- letters ---- */

TEST(Letters, EachCodeOfUnicode_IsReadAsItself) {
  for (uint32_t code = 0; code < 0x110000; ++code) {
    if (code >= 0xd800 && code < 0xe000) continue;
    const std::string text = utf8(code);
    const Letter letter = next_letter(text.data(), text.size());
    ASSERT_TRUE(letter.is_utf8) << code;
    ASSERT_EQ(letter.code, code);
    ASSERT_EQ(letter.size, text.size()) << code;
  }
}

TEST(Letters, WhatIsNoUtf8_IsReadByteByByteAndIsHarmful) {
  /* Bare tails, cut off, overlong, halves of pairs, behind the last, and bytes that never occur. */
  for (const std::string text :
       {"\x80", "\xbf", "\xc3", "\xc3(", "\xe4\xb8", "\xe4\xb8(", "\xf0\x9f\x98", "\xf0\x9f\x98(",
        "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"}) {
    const Letter letter = next_letter(text.data(), text.size());
    EXPECT_FALSE(letter.is_utf8) << escaped(text);
    EXPECT_FALSE(letter.is_harmless) << escaped(text);
    EXPECT_EQ(letter.size, 1) << escaped(text);
    EXPECT_EQ(letter.code, static_cast<uint8_t>(text[0]));
  }
}

/* The bytes behind a field that is full are another's. */
TEST(Letters, ALetterThatIsCut_IsNotReadBeyondItsText) {
  for (const std::string text : {"\xc3\xbc", "\xe4\xb8\xad", "\xf0\x9f\x98\x80"}) {
    for (size_t size = 1; size < text.size(); ++size) {
      const Letter letter = next_letter(text.data(), size);
      EXPECT_FALSE(letter.is_utf8) << escaped(text) << " of " << size;
      EXPECT_EQ(letter.size, 1);
    }
  }
}

TEST(Letters, ThoseThatSteerATerminalOrTurnTheDirection_AreHarmful) {
  const auto is_harmful = [](uint32_t code) {
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x61c || code == 0x200e ||
           code == 0x200f || (code >= 0x2028 && code <= 0x202e) ||
           (code >= 0x2066 && code <= 0x2069);
  };
  for (uint32_t code = 0; code < 0x110000; ++code) {
    if (code >= 0xd800 && code < 0xe000) continue;
    const std::string text = utf8(code);
    ASSERT_EQ(next_letter(text.data(), text.size()).is_harmless, !is_harmful(code)) << code;
    ASSERT_EQ(shown(text), is_harmful(code) ? escaped(text) : text) << code;
  }
}

TEST(Letters, AnEscapeStandsForOneTextAlone) {
  EXPECT_EQ(shown("\\x41"), "\\x5cx41");
  EXPECT_EQ(shown("\\xAf"), "\\x5cxAf");
  EXPECT_EQ(shown("C:\\x \\xg1 \\x1"), "C:\\x \\xg1 \\x1");
  for (char c = ' '; c < 0x7f; ++c) {
    const std::string two(2, c);
    EXPECT_EQ(shown("\\x" + two), (is_hex(two[0]) ? "\\x5cx" : "\\x") + two);
  }
  EXPECT_EQ(shown("\\\x1b"), "\\\\x1b");
  Random random;
  for (int n = 0; n < 20000; ++n) {
    const std::string text = random_text(random);
    ASSERT_EQ(meant(shown(text)), text) << shown(text);
  }
}

TEST(Letters, WideOnesTakeTwoColumnsAndCombiningOnesNone) {
  EXPECT_EQ(store::columns_of("abc"), 3u);
  EXPECT_EQ(store::columns_of("\xc3\xbc"), 1u);
  EXPECT_EQ(store::columns_of("\xe4\xb8\xad\xe6\x96\x87"), 4u); /* two ideographs */
  EXPECT_EQ(store::columns_of("\xed\x95\x9c"), 2u);             /* a Hangul syllable */
  EXPECT_EQ(store::columns_of("\xef\xbc\xa1"), 2u);             /* a fullwidth A */
  EXPECT_EQ(store::columns_of("\xf0\x9f\x98\x80"), 2u);         /* a face */
  EXPECT_EQ(store::columns_of("\xf0\xa0\x80\x80\xf0\xaf\xbf\xbd"),
            4u);                                  /* the second plane's ends */
  EXPECT_EQ(store::columns_of("e\xcc\x81x"), 2u); /* an accent of its own */
  EXPECT_EQ(store::columns_of("\xe2\x80\xbb\xe2\x82\xac"), 2u);
  EXPECT_EQ(store::columns_of(""), 0u);
}

/* Unicode's own: East Asian Width is wide or full, in version 14.0.0. */
constexpr struct {
  uint32_t first, last;
} kWideInUnicode[] = {
    {0x1100, 0x115f},   {0x231a, 0x231b},   {0x2329, 0x232a},   {0x23e9, 0x23ec},
    {0x23f0, 0x23f0},   {0x23f3, 0x23f3},   {0x25fd, 0x25fe},   {0x2614, 0x2615},
    {0x2648, 0x2653},   {0x267f, 0x267f},   {0x2693, 0x2693},   {0x26a1, 0x26a1},
    {0x26aa, 0x26ab},   {0x26bd, 0x26be},   {0x26c4, 0x26c5},   {0x26ce, 0x26ce},
    {0x26d4, 0x26d4},   {0x26ea, 0x26ea},   {0x26f2, 0x26f3},   {0x26f5, 0x26f5},
    {0x26fa, 0x26fa},   {0x26fd, 0x26fd},   {0x2705, 0x2705},   {0x270a, 0x270b},
    {0x2728, 0x2728},   {0x274c, 0x274c},   {0x274e, 0x274e},   {0x2753, 0x2755},
    {0x2757, 0x2757},   {0x2795, 0x2797},   {0x27b0, 0x27b0},   {0x27bf, 0x27bf},
    {0x2b1b, 0x2b1c},   {0x2b50, 0x2b50},   {0x2b55, 0x2b55},   {0x2e80, 0x2e99},
    {0x2e9b, 0x2ef3},   {0x2f00, 0x2fd5},   {0x2ff0, 0x2ffb},   {0x3000, 0x3029},
    {0x302e, 0x303e},   {0x3041, 0x3096},   {0x309b, 0x30ff},   {0x3105, 0x312f},
    {0x3131, 0x318e},   {0x3190, 0x31e3},   {0x31f0, 0x321e},   {0x3220, 0x3247},
    {0x3250, 0x4dbf},   {0x4e00, 0xa48c},   {0xa490, 0xa4c6},   {0xa960, 0xa97c},
    {0xac00, 0xd7a3},   {0xf900, 0xfa6d},   {0xfa70, 0xfad9},   {0xfe10, 0xfe19},
    {0xfe30, 0xfe52},   {0xfe54, 0xfe66},   {0xfe68, 0xfe6b},   {0xff01, 0xff60},
    {0xffe0, 0xffe6},   {0x16fe0, 0x16fe3}, {0x16ff0, 0x16ff1}, {0x17000, 0x187f7},
    {0x18800, 0x18cd5}, {0x18d00, 0x18d08}, {0x1aff0, 0x1aff3}, {0x1aff5, 0x1affb},
    {0x1affd, 0x1affe}, {0x1b000, 0x1b122}, {0x1b150, 0x1b152}, {0x1b164, 0x1b167},
    {0x1b170, 0x1b2fb}, {0x1f004, 0x1f004}, {0x1f0cf, 0x1f0cf}, {0x1f18e, 0x1f18e},
    {0x1f191, 0x1f19a}, {0x1f200, 0x1f202}, {0x1f210, 0x1f23b}, {0x1f240, 0x1f248},
    {0x1f250, 0x1f251}, {0x1f260, 0x1f265}, {0x1f300, 0x1f320}, {0x1f32d, 0x1f335},
    {0x1f337, 0x1f37c}, {0x1f37e, 0x1f393}, {0x1f3a0, 0x1f3ca}, {0x1f3cf, 0x1f3d3},
    {0x1f3e0, 0x1f3f0}, {0x1f3f4, 0x1f3f4}, {0x1f3f8, 0x1f43e}, {0x1f440, 0x1f440},
    {0x1f442, 0x1f4fc}, {0x1f4ff, 0x1f53d}, {0x1f54b, 0x1f54e}, {0x1f550, 0x1f567},
    {0x1f57a, 0x1f57a}, {0x1f595, 0x1f596}, {0x1f5a4, 0x1f5a4}, {0x1f5fb, 0x1f64f},
    {0x1f680, 0x1f6c5}, {0x1f6cc, 0x1f6cc}, {0x1f6d0, 0x1f6d2}, {0x1f6d5, 0x1f6d7},
    {0x1f6dd, 0x1f6df}, {0x1f6eb, 0x1f6ec}, {0x1f6f4, 0x1f6fc}, {0x1f7e0, 0x1f7eb},
    {0x1f7f0, 0x1f7f0}, {0x1f90c, 0x1f93a}, {0x1f93c, 0x1f945}, {0x1f947, 0x1f9ff},
    {0x1fa70, 0x1fa74}, {0x1fa78, 0x1fa7c}, {0x1fa80, 0x1fa86}, {0x1fa90, 0x1faac},
    {0x1fab0, 0x1faba}, {0x1fac0, 0x1fac5}, {0x1fad0, 0x1fad9}, {0x1fae0, 0x1fae7},
    {0x1faf0, 0x1faf6}, {0x20000, 0x2a6df}, {0x2a700, 0x2b738}, {0x2b740, 0x2b81d},
    {0x2b820, 0x2cea1}, {0x2ceb0, 0x2ebe0}, {0x2f800, 0x2fa1d}, {0x30000, 0x3134a}};

TEST(Letters, AllThatUnicodeCallsWide_TakeTwoColumns) {
  for (const auto& range : kWideInUnicode) {
    for (uint32_t code = range.first; code <= range.last; ++code) {
      ASSERT_EQ(store::columns_of(utf8(code).c_str()), 2u) << std::hex << code;
    }
  }
}

/* What the tool takes them for: whole blocks of wide ones, and the combining ones of scripts that a
 * router's names are written in. */
using Ends = std::vector<std::pair<uint32_t, uint32_t>>;
const Ends kWide = {{0x1100, 0x115f},   {0x231a, 0x231b},   {0x2329, 0x232a},   {0x23e9, 0x23ec},
                    {0x23f0, 0x23f0},   {0x23f3, 0x23f3},   {0x25fd, 0x25fe},   {0x2614, 0x2615},
                    {0x2630, 0x2637},   {0x2648, 0x2653},   {0x267f, 0x267f},   {0x268a, 0x268f},
                    {0x2693, 0x2693},   {0x26a1, 0x26a1},   {0x26aa, 0x26ab},   {0x26bd, 0x26be},
                    {0x26c4, 0x26c5},   {0x26ce, 0x26ce},   {0x26d4, 0x26d4},   {0x26ea, 0x26ea},
                    {0x26f2, 0x26f5},   {0x26fa, 0x26fd},   {0x2705, 0x2705},   {0x270a, 0x270b},
                    {0x2728, 0x2728},   {0x274c, 0x274e},   {0x2753, 0x2757},   {0x2795, 0x2797},
                    {0x27b0, 0x27b0},   {0x27bf, 0x27bf},   {0x2b1b, 0x2b1c},   {0x2b50, 0x2b50},
                    {0x2b55, 0x2b55},   {0x2e80, 0x3029},   {0x302e, 0x303e},   {0x3040, 0x3098},
                    {0x309b, 0xa4cf},   {0xa960, 0xa97f},   {0xac00, 0xd7a3},   {0xf900, 0xfaff},
                    {0xfe10, 0xfe19},   {0xfe30, 0xfe6f},   {0xff00, 0xff60},   {0xffe0, 0xffe6},
                    {0x16fe0, 0x18dff}, {0x1aff0, 0x1b2ff}, {0x1d300, 0x1d37f}, {0x1f000, 0x1f0ff},
                    {0x1f18e, 0x1f18e}, {0x1f191, 0x1f19a}, {0x1f200, 0x1faff}, {0x20000, 0x3ffff}};
const Ends kCombining = {{0x300, 0x36f},   {0x483, 0x489},   {0x591, 0x5bd},   {0x610, 0x61a},
                         {0x64b, 0x65f},   {0x6d6, 0x6dc},   {0x6df, 0x6e4},   {0xe31, 0xe31},
                         {0xe34, 0xe3a},   {0xe47, 0xe4e},   {0x1ab0, 0x1ace}, {0x1dc0, 0x1dff},
                         {0x200b, 0x200d}, {0x20d0, 0x20f0}, {0x302a, 0x302d}, {0x3099, 0x309a},
                         {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f}, {0xfeff, 0xfeff}, {0xe0100, 0xe01ef}};

TEST(Letters, EachRangeOfAWidth_EndsWhereItEnds) {
  const auto is_in = [](const Ends& ranges, uint32_t code) {
    return std::any_of(ranges.begin(), ranges.end(), [=](const auto& range) {
      return code >= range.first && code <= range.second;
    });
  };
  for (const Ends& ranges : {kWide, kCombining}) {
    for (const auto& [first, last] : ranges) {
      for (const uint32_t code : {first - 1, first, last, last + 1}) {
        const std::string text = utf8(code);
        EXPECT_EQ(next_letter(text.data(), text.size()).columns, is_in(kCombining, code) ? 0
                                                                 : is_in(kWide, code)    ? 2
                                                                                         : 1)
            << std::hex << code;
      }
    }
  }
}

/* ---- words ---- */

/* The words of a line in memory of exactly its size, or its fault. */
struct Split {
  std::vector<std::string> words;
  std::string fault;

  explicit Split(const std::string& line) {
    const std::unique_ptr<char[]> bytes(new char[line.size() + 1]);
    memcpy(bytes.get(), line.c_str(), line.size() + 1);
    scctl::Words split;
    if (!split.split(bytes.get())) {
      fault = split.fault();
      return;
    }
    words.assign(split.words(), split.words() + split.count());
  }
};

using List = std::vector<std::string>;

TEST(WordsOfALine, AreQuotedAsPosixHasIt) {
  const struct {
    const char* line;
    List words;
  } kCases[] = {
      {"", {}},
      {" \t ", {}},
      {"# all of it", {}},
      {"a #b c", {"a"}},
      {"a#b '#' c#", {"a#b", "#", "c#"}},
      {" a\tb  c ", {"a", "b", "c"}},
      {"'' \"\" a''b", {"", "", "ab"}},
      {R"("say \"hi\"" 'x\y' "x\y")", {"say \"hi\"", "x\\y", "x\\y"}},
      {R"("\$\`\"\\\a\'")", {"$`\"\\\\a\\'"}},
      {R"(\a\ b\'\"\\\#\$\~ x)", {"a b'\"\\#$~", "x"}},
      {R"('it'\''s me')", {"it's me"}},
      {R"('$`*?[{~;&|<>()')", {"$`*?[{~;&|<>()"}},
      {R"("*?[{~;&|<>()!")", {"*?[{~;&|<>()!"}},
      {"a~b x/~y ]!^%+@,.-_=:", {"a~b", "x/~y", "]!^%+@,.-_=:"}},
      {"name='a b'c\"d e\"\\ f", {"name=a bcd e f"}},
      {"\xff \xc3\xbc", {"\xff", "\xc3\xbc"}},
      {"end\\ ", {"end "}},
  };
  for (const auto& known : kCases) {
    const Split split(known.line);
    EXPECT_EQ(split.fault, "") << known.line;
    EXPECT_EQ(split.words, known.words) << known.line;
  }
}

TEST(WordsOfALine, WhatAShellWouldExpand_IsRefused) {
  for (const char c : std::string("$`*?[{};&|<>()")) {
    const std::string fault =
        std::string("a shell takes ") + c + " as more than a letter: quote it";
    for (const std::string line : {std::string(1, c), std::string("a") + c, std::string("a b=") + c,
                                   std::string("''") + c + "x"}) {
      EXPECT_EQ(Split(line).fault, fault) << line;
    }
    EXPECT_EQ(Split(std::string("\\") + c).words, (List{std::string(1, c)}));
  }
  for (const char* line : {"~", "a ~b", "a=~", "a=b:~c"}) {
    EXPECT_EQ(Split(line).fault, "a shell takes ~ as more than a letter: quote it") << line;
  }
  EXPECT_EQ(Split("\"a$b\"").fault, "a shell takes $ as more than a letter: quote it");
  EXPECT_EQ(Split("\"`\"").fault, "a shell takes ` as more than a letter: quote it");
  EXPECT_EQ(Split("$'a'").fault, "a shell takes $ as more than a letter: quote it");
}

TEST(WordsOfALine, ThatGoesOnInTheNext_AreRefused) {
  for (const char* line : {"'", "a 'b", "\"", "a\"b c", "\"a\\\"", "'a'\\''", "$'\\"}) {
    const std::string fault = Split(line).fault;
    EXPECT_EQ(fault, line[0] == '$' ? "a shell takes $ as more than a letter: quote it"
                                    : "a quote is not closed")
        << line;
  }
  for (const char* line : {"\\", "a\\", "'a'\\", "a b \\"}) {
    EXPECT_EQ(Split(line).fault, "a backslash at the end; a command is one line") << line;
  }
  EXPECT_EQ(Split("\"a\\").fault, "a quote is not closed");
}

TEST(WordsOfALine, AsManyAsFit_AreTaken) {
  std::string line;
  List words;
  for (int n = 0; n < 5000; ++n) {
    line += n == 0 ? "w" : " w";
    words.push_back("w");
  }
  EXPECT_EQ(Split(line).words, words);
  EXPECT_EQ(Split(line + " ").words, words);
}

TEST(WordsOfALine, AShellReadsTheSame) {
  static const List kPieces = {"a", "B", "7", " ", "\t", "'",        "'",   "\"", "\"", "\\",
                               "$", "`", "*", "?", "[",  "]",        "{",   "}",  "~",  "#",
                               ";", "&", "|", "<", ">",  "(",        ")",   "=",  ":",  "!",
                               "%", "-", "/", ",", "^",  "\xc3\xbc", "\xff"};
  Random random;
  std::string script = "p() { for w; do printf '<%s>' \"$w\"; done; echo .; }\n", expected;
  int taken = 0;
  while (taken < 3000) {
    std::string line;
    for (uint32_t n = random.below(10); n > 0; --n) {
      line += kPieces[random.below(static_cast<uint32_t>(kPieces.size()))];
    }
    const Split split(line);
    if (!split.fault.empty()) continue;
    ++taken;
    script += "p " + line + "\n";
    for (const std::string& word : split.words) expected += "<" + word + ">";
    expected += ".\n";
  }
  const Outcome outcome = run({"sh"}, script);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(outcome.out == expected) << "another reading of one line at least";
}

/* ---- JSON ---- */

std::string json(const std::string& text) {
  store::Text to;
  store::add_json_text(reinterpret_cast<const uint8_t*>(text.data()), text.size(), &to);
  return {to.c_str(), to.size()};
}

/* A value of JSON, with a number in front of its kind, or the fault. */
std::string value(const std::string& text) {
  const std::unique_ptr<char[]> bytes(new char[text.size()]);
  memcpy(bytes.get(), text.data(), text.size());
  JsonReader reader(bytes.get(), text.size());
  store::Text to;
  JsonKind kind;
  if (!reader.value(&to, &kind) || !reader.end()) return std::string("fault: ") + reader.fault();
  return std::to_string(static_cast<int>(kind)) + std::string(to.c_str(), to.size());
}

TEST(Json, ATextIsWrittenAsItWasBefore_ButForWhatIsHarmful) {
  EXPECT_EQ(json("plain \xc3\xbc \xe4\xb8\xad /"), "\"plain \xc3\xbc \xe4\xb8\xad /\"");
  EXPECT_EQ(json("\"\\"), R"("\"\\")");
  EXPECT_EQ(json(std::string("\0\x1f\t\x7f", 4)), R"("\u0000\u001f\u0009\u007f")");
  EXPECT_EQ(json("\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0"), "\"\\u0080\\u009b\\u009f\xc2\xa0\"");
  EXPECT_EQ(json("\xd8\x9c\xe2\x80\x8e\xe2\x80\xae\xe2\x81\xa6\xe2\x80\xa8\xe2\x80\xa9"),
            R"("\u061c\u200e\u202e\u2066\u2028\u2029")");
  EXPECT_EQ(json("\x80\xff\xc3"), R"("\udc80\udcff\udcc3")");
}

TEST(Json, EveryTextComesBack) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    EXPECT_EQ(value(json(text)), "0" + text) << byte;
  }
  Random random;
  for (int n = 0; n < 20000; ++n) {
    const std::string text = random_text(random);
    ASSERT_EQ(value(json(text)), "0" + text) << json(text);
  }
}

TEST(Json, EscapesOfOthersAreRead) {
  EXPECT_EQ(value(R"("\"\\\/\b\f\n\r\t")"), "0\"\\/\b\f\n\r\t");
  EXPECT_EQ(value(R"("\u0041\u00e9\u4e2D\uD83D\uDE00\udbff\udfff")"),
            "0A\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf");
  EXPECT_EQ(value(R"("\u07ff\u0800\uffff")"), "0\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf");
  EXPECT_EQ(value(R"("\u007f\u0080\ud7ff\ue000")"), "0\x7f\xc2\x80\xed\x9f\xbf\xee\x80\x80");
  EXPECT_EQ(value(R"("\ud800\udc00\uD800\uDFFF")"), "0\xf0\x90\x80\x80\xf0\x90\x8f\xbf");
  EXPECT_EQ(value(R"("\uabcd\uefAB\uCDEF")"), "0\xea\xaf\x8d\xee\xbe\xab\xec\xb7\xaf");
  EXPECT_EQ(value(R"("a\u0000b")"), std::string("0a\0b", 4));
  for (const char* half : {R"("\ud800")", R"("\udbffx")", R"("\ud800\u0041")", R"("\ud800\ud800")",
                           R"("\ud800\udbff")", R"("\ud800\ue000")", R"("\udc00")", R"("\udc7f")",
                           R"("\udd00")", R"("\udfff")", "\"\\ud800\\", "\"\\ud800"}) {
    EXPECT_EQ(value(half), "fault: unpaired surrogate") << half;
  }
  EXPECT_EQ(value(R"("\ud800\n")"), "fault: unpaired surrogate");
  for (const char* bad :
       {R"("\u12")", R"("\u12g4")", R"("\u12G4")", R"("\u12@4")", R"("\u12`4")", R"("\u12:4")",
        R"("\u12/4")", R"("\u 123")", "\"\\u123", R"("\ud800\u12")", R"("\ud800\u12g4")"}) {
    EXPECT_EQ(value(bad), "fault: expected four hex digits after \\u") << bad;
  }
  for (const char* bad : {R"("\x41")", R"("\0")", R"("\')", R"("\U0041")"}) {
    EXPECT_EQ(value(bad), "fault: invalid escape in a string") << bad;
  }
  for (const char* open : {"\"", "\"a", "\"a\\", "\"a\\\""}) {
    EXPECT_EQ(value(open), "fault: unterminated string") << open;
  }
  EXPECT_EQ(value("\"a\nb\""), "fault: control character in a string");
}

TEST(Json, NumbersAreWholeAndPlain) {
  for (const char* number : {"0", "-0", "7", "-128", "4294967295", "18446744073709551616"}) {
    EXPECT_EQ(value(number), std::string("1") + number);
  }
  EXPECT_EQ(value("[]"), "2");
  EXPECT_EQ(value(" [ 1 , -2,3 ] "), "21,-2,3");
  for (const char* bad : {"01", "-01", "00", "[1, 02]"}) {
    EXPECT_EQ(value(bad), "fault: a number with a leading zero") << bad;
  }
  for (const char* bad : {"1.5", "1e3", "1E3", "0.0", "[1, 2e0]"}) {
    EXPECT_EQ(value(bad), "fault: expected a whole number") << bad;
  }
  for (const char* bad : {"", "-", "+1", "true", "null", "{}", "[[1]]", "[\"1\"]", "[1,]", "--1"}) {
    EXPECT_EQ(value(bad), "fault: expected a string, a number or an array of numbers") << bad;
  }
  for (const char* bad : {"3x", "1-5", "1 2", "0x10"}) {
    EXPECT_EQ(value(bad), "fault: unexpected text after the end") << bad;
  }
  EXPECT_EQ(value("[1 2]"), "fault: expected ',' between two members");
  EXPECT_EQ(value("[1"), "fault: expected ',' between two members");
}

TEST(Json, ANameHasNoNul) {
  const std::string text = "{\"name\\u0000\": 1}";
  JsonReader reader(text.data(), text.size());
  store::Text name;
  bool first = true;
  ASSERT_TRUE(reader.open('{') && reader.next('}', &first));
  EXPECT_FALSE(reader.name(&name));
  EXPECT_STREQ(reader.fault(), "NUL in a name");
}

/* ---- the nearest name ---- */

std::string nearest(const std::string& wrong) {
  store::Nearest nearest(wrong.data(), wrong.size());
  for (const char* name : {"list", "lan_binds", "ip", "template_name"}) nearest.offer(name);
  return nearest.hint("nothing");
}

TEST(NearestName, IsOfferedWhenAThirdOfTheLettersDifferAtMost) {
  EXPECT_EQ(nearest("lits"), "the nearest is list");
  EXPECT_EQ(nearest("lixy"), "the nearest is list");
  EXPECT_EQ(nearest("lxyz"), "nothing");
  EXPECT_EQ(nearest("lan_binder"), "the nearest is lan_binds");
  EXPECT_EQ(nearest("lan_whatso"), "nothing");
  EXPECT_EQ(nearest("p"), "the nearest is ip");
  EXPECT_EQ(nearest(""), "nothing");
  EXPECT_EQ(nearest("templatexxx_name"), "the nearest is template_name");
  EXPECT_EQ(nearest(std::string(5000, 'l')), "nothing");
}

}  // namespace
}  // namespace sc_test
