/* UTF-8, and how terminals display it. */
#include "store/letters.h"

#include <string.h>

namespace store {

namespace {

struct Range {
  uint32_t first, last;
};

/* These control a terminal, or change the direction of the text that follows. */
constexpr Range kHarmful[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     {0x61c, 0x61c},   {0x200e, 0x200f},
    {0x2028, 0x2029}, {0x202a, 0x202e}, {0x2066, 0x2069},
};

/* These take two columns. Blocks with wide letters count as wide as a whole: one column too many
 * does less harm than one too few. */
constexpr Range kWide[] = {
    {0x1100, 0x115f},   {0x231a, 0x231b},   {0x2329, 0x232a},   {0x23e9, 0x23ec},
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
    {0x1f18e, 0x1f18e}, {0x1f191, 0x1f19a}, {0x1f200, 0x1faff}, {0x20000, 0x3ffff},
};

/* These take no column: they are displayed above, below or in the letter before. Those of other
 * scripts count one column. */
constexpr Range kCombining[] = {
    {0x300, 0x36f},   {0x483, 0x489},   {0x591, 0x5bd},   {0x610, 0x61a},   {0x64b, 0x65f},
    {0x6d6, 0x6dc},   {0x6df, 0x6e4},   {0xe31, 0xe31},   {0xe34, 0xe3a},   {0xe47, 0xe4e},
    {0x1ab0, 0x1ace}, {0x1dc0, 0x1dff}, {0x200b, 0x200d}, {0x20d0, 0x20f0}, {0x302a, 0x302d},
    {0x3099, 0x309a}, {0xfe00, 0xfe0f}, {0xfe20, 0xfe2f}, {0xfeff, 0xfeff}, {0xe0100, 0xe01ef},
};

template <size_t kCount>
bool is_in(const Range (&ranges)[kCount], uint32_t code) {
  for (const Range& range : ranges) {
    if (code >= range.first && code <= range.last) return true;
  }
  return false;
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool begins_escape(const char* text, size_t size) {
  return size >= 4 && text[0] == '\\' && text[1] == 'x' && is_hex(text[2]) && is_hex(text[3]);
}

}  // namespace

Letter next_letter(const char* text, size_t size) {
  const auto at = [=](size_t n) { return static_cast<uint8_t>(text[n]); };
  const uint8_t first = at(0);
  const Letter byte = {first, 1, 1, first < 0x80, first >= ' ' && first < 0x7f};
  const uint8_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || length > size) return byte;
  uint32_t code = first & (0x7f >> length);
  for (size_t n = 1; n < length; ++n) {
    if ((at(n) & 0xc0) != 0x80) return byte;
    code = code << 6 | (at(n) & 0x3f);
  }
  /* Overlong forms, surrogates, and codes above the last letter. */
  if ((length == 3 && code < 0x800) || (length == 4 && code < 0x10000) || code > 0x10ffff ||
      (code >= 0xd800 && code <= 0xdfff)) {
    return byte;
  }
  const uint8_t columns = is_in(kCombining, code) ? 0 : is_in(kWide, code) ? 2 : 1;
  return {code, length, columns, true, !is_in(kHarmful, code)};
}

size_t show_letter(const char* text, size_t size, Shown* shown) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const Letter letter = next_letter(text, size);
  if (letter.is_harmless && !begins_escape(text, size)) {
    memcpy(shown->bytes, text, letter.size);
    shown->size = letter.size;
    shown->columns = letter.columns;
    return letter.size;
  }
  char* to = shown->bytes;
  for (size_t n = 0; n < letter.size; ++n) {
    const auto byte = static_cast<uint8_t>(text[n]);
    *to++ = '\\';
    *to++ = 'x';
    *to++ = kDigits[byte >> 4];
    *to++ = kDigits[byte & 0xf];
  }
  shown->size = shown->columns = static_cast<uint8_t>(to - shown->bytes);
  return letter.size;
}

size_t columns_of(const char* shown) {
  size_t columns = 0;
  for (size_t left = strlen(shown); left > 0;) {
    const Letter letter = next_letter(shown, left);
    columns += letter.columns;
    shown += letter.size;
    left -= letter.size;
  }
  return columns;
}

}  // namespace store
