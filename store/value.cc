/* Text to value and back. */
#include "store/value.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <regex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <sysconfig/core.h>

#include "store/json.h"
#include "store/letters.h"

namespace store {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c |= ' ';
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/* Two hex digits; -1 when they are not. */
int hex_byte(const char* text) {
  const int high = hex_digit(text[0]);
  const int low = high < 0 ? -1 : hex_digit(text[1]);
  return low < 0 ? -1 : high * 16 + low;
}

bool parse_mac(const char* text, size_t size, uint8_t* mac) {
  constexpr size_t kSize = 17;
  if (size != kSize || (text[2] != ':' && text[2] != '-')) return false;
  for (size_t n = 0; n < SC_MAC_BYTES; ++n) {
    const int byte = hex_byte(text + 3 * n);
    if (byte < 0 || (n > 0 && text[3 * n - 1] != text[2])) return false;
    mac[n] = static_cast<uint8_t>(byte);
  }
  return true;
}

bool parse_hex(const char* text, size_t size, uint8_t* bytes) {
  for (size_t n = 0; n < size / 2; ++n) {
    const int byte = hex_byte(text + 2 * n);
    if (byte < 0) return false;
    bytes[n] = static_cast<uint8_t>(byte);
  }
  return size % 2 == 0;
}

void store_value(const Field& field, uint8_t* at, uint64_t value) {
  const Extra* extra = field.extra;
  if (extra == nullptr || extra->bits == 0) {
    const bool is_big = extra != nullptr && extra->is_big;
    for (size_t n = 0; n < field.width; ++n, value >>= 8) {
      at[is_big ? field.width - 1 - n : n] = static_cast<uint8_t>(value);
    }
    return;
  }
  for (unsigned n = 0; n < extra->bits; ++n, value >>= 1) {
    const unsigned place = extra->bit + (extra->is_big ? extra->bits - 1u - n : n);
    const auto bit = static_cast<uint8_t>(extra->is_big ? 0x80 >> place % 8 : 1 << place % 8);
    at[place / 8] = static_cast<uint8_t>((at[place / 8] & ~bit) | ((value & 1) != 0 ? bit : 0));
  }
}

int bits_of(const Field& field) {
  return field.extra != nullptr && field.extra->bits != 0 ? field.extra->bits : 8 * field.width;
}

void add_number(const Field& field, int64_t number, Text* to) {
  to->print(field.kind == Kind::kSigned ? "%lld" : "%llu", static_cast<long long>(number));
}

/* The value in an error message. */
const char* shown_value(const Field& field, const char* text) {
  return is_hidden(field) ? kSecret : text;
}

/* Reads one number or name, or several with commas between them. */
int parse_numbers(const Table& table, const Field& field, const char* text, size_t size,
                  uint8_t* to) {
  const bool is_signed = field.kind == Kind::kSigned;
  const int bits = bits_of(field);
  const size_t count = field.size / field.width;
  const char* const end = text + size;
  const char* at = text;
  for (const EnumName* name = field.extra != nullptr ? field.extra->names : nullptr;
       name != nullptr; name = name->next) {
    if (strcmp(name->name, text) != 0) continue;
    store_value(field, to, static_cast<uint64_t>(name->number));
    if (load_value(field, to) == name->number) return kOk;
    return fail(kRefused, "%s.%s: '%s' needs more than %d bits", table.name, field.name,
                shown_value(field, text), bits);
  }
  for (size_t n = 0; n < count; ++n, ++at) {
    char* rest;
    int64_t value;
    const bool fits = read_number(at, &rest, is_signed, bits, &value);
    const char expected = n + 1 < count ? ',' : '\0';
    if (rest == at || rest > end || (rest == end ? '\0' : *rest) != expected) {
      const bool has_names = field.extra != nullptr && field.extra->names != nullptr;
      return count == 1 ? fail(kRefused, "%s.%s: '%s' is %s", table.name, field.name,
                               shown_value(field, text),
                               has_names ? "neither a name nor a number" : "not a number")
                        : fail(kRefused, "%s.%s: '%s' is not %zu numbers with commas between them",
                               table.name, field.name, shown_value(field, text), count);
    }
    if (!fits) {
      const uint64_t high = 1ULL << (bits - 1);
      Text least;
      if (is_signed) least.print("-%llu", static_cast<unsigned long long>(high));
      Text given;
      given.add(at, static_cast<size_t>(rest - at));
      return fail(kRefused, "%s.%s: %s is not within %s to %llu", table.name, field.name,
                  shown_value(field, given.c_str()), is_signed ? least.c_str() : "0",
                  static_cast<unsigned long long>(is_signed ? high - 1 : high - 1 + high));
    }
    store_value(field, to + n * field.width, static_cast<uint64_t>(value));
    at = rest;
  }
  return kOk;
}

/* Writes all of the field's bits; zeros behind the digits. False when a digit is wrong, or names a
 * bit of another member. */
bool store_hex(const Field& field, const char* digits, size_t size, uint8_t* to) {
  Buffer bytes(field.size);
  if (!parse_hex(digits, size, bytes.data())) return false;
  for (size_t n = 0; n < field.size; ++n) {
    if ((bytes.data()[n] & ~mask_at(field, n)) != 0) return false;
  }
  for (size_t n = 0; n < field.size; ++n) {
    to[n] = static_cast<uint8_t>((to[n] & ~mask_at(field, n)) | bytes.data()[n]);
  }
  return true;
}

size_t text_size(const Field& field, const uint8_t* record) {
  return strnlen(reinterpret_cast<const char*>(record) + field.record_at, field.size);
}

void add_hex(const Field& field, const uint8_t* record, Text* to) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const size_t size = size_without_trailing_zeros(field, record);
  for (size_t n = 0; n < size; ++n) {
    const uint8_t byte = record[field.record_at + n] & mask_at(field, n);
    to->add(kDigits[byte >> 4]);
    to->add(kDigits[byte & 0xf]);
  }
}

}  // namespace

bool g_shows_secrets;

bool is_token(const Field& field, const char* text, size_t size) {
  return field.is_secret && size == strlen(kSecret) && memcmp(text, kSecret, size) == 0;
}

static int64_t extend(uint64_t value, int bits, bool is_signed) {
  if (bits < 1 || bits > 64) __builtin_unreachable();
  const uint64_t sign = 1ULL << (bits - 1);
  if (is_signed && (value & sign) != 0) value |= ~(sign - 1);
  return static_cast<int64_t>(value);
}

int64_t load_number(const uint8_t* at, size_t width, bool is_signed) {
  uint64_t value = 0;
  for (size_t n = 0; n < width; ++n) value |= static_cast<uint64_t>(at[n]) << (8 * n);
  return extend(value, static_cast<int>(8 * width), is_signed);
}

int64_t load_value(const Field& field, const uint8_t* at) {
  const Extra* extra = field.extra;
  const bool is_signed = field.kind == Kind::kSigned;
  if (extra == nullptr || (extra->bits == 0 && !extra->is_big)) {
    return load_number(at, field.width, is_signed);
  }
  const unsigned first = extra->bit;
  const int bits = bits_of(field);
  uint64_t value = 0;
  for (unsigned n = 0; n < static_cast<unsigned>(bits); ++n) {
    const unsigned place = first + n;
    if (extra->is_big)
      value = value << 1 | (at[place / 8] >> (7 - place % 8) & 1);
    else
      value |= static_cast<uint64_t>(at[place / 8] >> place % 8 & 1) << n;
  }
  return extend(value, bits, is_signed);
}

const char* name_of(const Field& field, int64_t number) {
  const EnumName* name = field.extra != nullptr ? field.extra->names : nullptr;
  while (name != nullptr && name->number != number) name = name->next;
  return name != nullptr ? name->name : nullptr;
}

bool read_number(const char* text, char** end, bool is_signed, int bits, int64_t* number) {
  *end = const_cast<char*>(text);
  const bool is_negative = *text == '-';
  const char* digits = text + is_negative;
  if (isdigit(static_cast<unsigned char>(*digits)) == 0) return false;
  errno = 0;
  const uint64_t size =
      strtoull(digits, end, digits[0] == '0' && (digits[1] | ' ') == 'x' ? 16 : 10);
  *number = static_cast<int64_t>(is_negative ? -size : size);
  const uint64_t high = 1ULL << (bits - 1);
  const uint64_t most = is_signed ? high - !is_negative : is_negative ? 0 : high - 1 + high;
  return errno == 0 && size <= most;
}

bool equal(const Field& field, const uint8_t* one, const uint8_t* other) {
  one += field.record_at;
  other += field.record_at;
  if (field.extra == nullptr || field.extra->mask == nullptr) {
    return memcmp(one, other, field.size) == 0;
  }
  for (size_t n = 0; n < field.size; ++n) {
    if (((one[n] ^ other[n]) & mask_at(field, n)) != 0) return false;
  }
  return true;
}

void copy_field(const Field& field, uint8_t* to, const uint8_t* from) {
  to += field.record_at;
  from += field.record_at;
  for (size_t n = 0; n < field.size; ++n) {
    const uint8_t own = mask_at(field, n);
    to[n] = static_cast<uint8_t>((to[n] & ~own) | (from[n] & own));
  }
}

size_t list_size(const Field& field) {
  const bool number = field.kind == Kind::kSigned || field.kind == Kind::kUnsigned;
  const bool is_list = field.size > field.width || (field.extra != nullptr && field.extra->is_list);
  return number && is_list ? field.size / field.width : 0;
}

size_t size_without_trailing_zeros(const Field& field, const uint8_t* record) {
  size_t size = field.size;
  const uint8_t* at = record + field.record_at;
  if (field.extra != nullptr && field.extra->mask != nullptr) {
    while (size > 0 && (at[size - 1] & field.extra->mask[size - 1]) == 0) --size;
    return size;
  }
  static constexpr uint8_t kZeros[256] = {};
  while (size >= sizeof kZeros && memcmp(at + size - sizeof kZeros, kZeros, sizeof kZeros) == 0) {
    size -= sizeof kZeros;
  }
  while (size > 0 && at[size - 1] == 0) --size;
  return size;
}

bool has_equal_fields(const Table& table, const uint8_t* one, const uint8_t* other) {
  for (const Field& field : table) {
    if (!equal(field, one, other)) return false;
  }
  return true;
}

int parse(const Table& table, const Field& field, const char* text, size_t size, Origin origin,
          uint8_t* record) {
  uint8_t* to = record + field.record_at;
  const auto refuse = [&](const char* what) {
    return fail(kRefused, "%s.%s: '%s' is not a valid %s", table.name, field.name,
                shown_value(field, text), what);
  };
  const size_t limit = field.kind == Kind::kBytes ? 2 * field.size : field.size;
  const bool limited = is_text(field) || field.kind == Kind::kBytes;
  if (limited && size > limit) {
    return fail(kRefused, "%s.%s: %zu %s, at most %zu fit", table.name, field.name, size,
                field.kind == Kind::kBytes ? "digits" : "bytes", limit);
  }
  switch (field.kind) {
    case Kind::kMacText:
      if (uint8_t mac[SC_MAC_BYTES]; origin == Origin::kTyped && !parse_mac(text, size, mac)) {
        return refuse("MAC address, such as 00:11:22:33:44:55");
      }
      [[fallthrough]];
    case Kind::kText:
      memset(to, 0, field.size);
      memcpy(to, text, size);
      return kOk;
    case Kind::kAddress: {
      in_addr address;
      if (strlen(text) != size || inet_pton(AF_INET, text, &address) != 1) {
        return refuse("IPv4 address, such as 192.168.1.20");
      }
      memcpy(to, &address, sizeof address);
      return kOk;
    }
    case Kind::kMac: {
      uint8_t mac[SC_MAC_BYTES];
      if (!parse_mac(text, size, mac)) return refuse("MAC address, such as 00:11:22:33:44:55");
      memcpy(to, mac, sizeof mac);
      return kOk;
    }
    case Kind::kBytes:
      return store_hex(field, text, size, to) ? kOk
                                              : refuse("row of hex digits, two for each byte");
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  return parse_numbers(table, field, text, size, to);
}

int parse_text_bytes(const Table& table, const Field& field, const char* hex, uint8_t* record) {
  if (!is_text(field) && field.extra == nullptr) {
    return fail(kUsage, "%s.%s is not a text; :hex is for texts only", table.name, field.name);
  }
  const size_t digits = strlen(hex);
  if (digits > 2u * field.size) {
    return fail(kRefused, "%s.%s: %zu digits, at most %u fit", table.name, field.name, digits,
                2u * field.size);
  }
  if (store_hex(field, hex, digits, record + field.record_at)) return kOk;
  return fail(kRefused, "%s.%s: '%s' is not a valid row of hex digits, two for each byte",
              table.name, field.name, shown_value(field, hex));
}

bool is_same_text(const Field& field, const uint8_t* one, const uint8_t* other) {
  return strncasecmp(reinterpret_cast<const char*>(one) + field.record_at,
                     reinterpret_cast<const char*>(other) + field.record_at, field.size) == 0;
}

bool is_same_mac_text(const Field& field, const uint8_t* one, const uint8_t* other) {
  const auto* a = reinterpret_cast<const char*>(one) + field.record_at;
  const auto* b = reinterpret_cast<const char*>(other) + field.record_at;
  uint8_t mac_a[SC_MAC_BYTES], mac_b[SC_MAC_BYTES];
  if (parse_mac(a, text_size(field, one), mac_a) && parse_mac(b, text_size(field, other), mac_b)) {
    return memcmp(mac_a, mac_b, sizeof mac_a) == 0;
  }
  return is_same_text(field, one, other);
}

void format(const Field& field, const uint8_t* record, Text* to) {
  const uint8_t* at = record + field.record_at;
  if (is_hidden(field)) {
    to->add(kSecret);
    return;
  }
  switch (field.kind) {
    case Kind::kText:
    case Kind::kMacText:
      to->add(reinterpret_cast<const char*>(at), text_size(field, record));
      return;
    case Kind::kAddress: to->print("%u.%u.%u.%u", at[0], at[1], at[2], at[3]); return;
    case Kind::kMac:
      to->print("%02x:%02x:%02x:%02x:%02x:%02x", at[0], at[1], at[2], at[3], at[4], at[5]);
      return;
    case Kind::kBytes: add_hex(field, record, to); return;
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  for (size_t n = 0; n < field.size; n += field.width) {
    if (n > 0) to->add(',');
    const int64_t number = load_value(field, at + n);
    if (const char* name = name_of(field, number); name != nullptr)
      to->add(name);
    else
      add_number(field, number, to);
  }
}

void format_shown(const Field& field, const uint8_t* record, Text* to) {
  if (!is_text(field) || is_hidden(field)) {
    format(field, record, to);
    return;
  }
  to->add_shown(reinterpret_cast<const char*>(record) + field.record_at, text_size(field, record));
}

namespace {

/* No shell gives these characters a special meaning. */
bool is_bare(const char* text, size_t size) {
  for (size_t n = 0; n < size; ++n) {
    const auto c = static_cast<unsigned char>(text[n]);
    const bool bare = c < 0x80 && (isalnum(c) != 0 || strchr("_-.,:/@%+", c) != nullptr);
    if (!bare || c == '\0') return false;
  }
  return size > 0;
}

/* In single quotes. They are closed before a quote, and opened again after it. */
void add_quoted(const char* text, size_t size, Text* to) {
  to->add('\'');
  for (size_t n = 0; n < size; ++n) {
    if (text[n] == '\'')
      to->add("'\\''");
    else
      to->add(text[n]);
  }
  to->add('\'');
}

bool is_all_harmless(const char* text, size_t size) {
  while (size > 0) {
    const Letter letter = next_letter(text, size);
    if (!letter.is_harmless) return false;
    text += letter.size;
    size -= letter.size;
  }
  return true;
}

}  // namespace

void format_part(const Field& field, const uint8_t* record, bool whole, Text* to) {
  if (!is_text(field) || is_hidden(field)) {
    format(field, record, to);
    return;
  }
  const auto* text = reinterpret_cast<const char*>(record) + field.record_at;
  add_word(text, whole ? size_without_trailing_zeros(field, record) : text_size(field, record), to);
}

void add_word(const char* text, size_t size, Text* to) {
  if (is_bare(text, size)) {
    to->add(text, size);
    return;
  }
  Text shown;
  shown.add_shown(text, size);
  add_quoted(shown.c_str(), shown.size(), to);
}

void format_assignment(const Field& field, const uint8_t* record, bool checked, Text* to,
                       bool quoted) {
  const char* quote = quoted && strchr(field.name, '[') != nullptr ? "'" : "";
  to->print(" %s%s%s", quote, field.name, quote);
  const auto* text = reinterpret_cast<const char*>(record) + field.record_at;
  const size_t size = size_without_trailing_zeros(field, record);
  if (is_hidden(field)) {
    to->print(quoted ? "='%s'" : "=%s", kSecret);
    return;
  }
  /* edit takes a line back as it was shown, also one that cannot be typed. */
  const bool is_refused = quoted && find_fault(field, record) != nullptr;
  if (!is_text(field) && !is_refused) {
    to->add('=');
    format(field, record, to);
    return;
  }
  uint8_t mac[SC_MAC_BYTES];
  const bool typed = checked && !is_refused && !is_token(field, text, size) &&
                     (field.kind == Kind::kText || parse_mac(text, size, mac));
  if (!typed || !is_all_harmless(text, size)) {
    to->add(":hex=");
    add_hex(field, record, to);
    return;
  }
  to->add('=');
  if (quoted && size > 0 && !is_bare(text, size))
    add_quoted(text, size, to);
  else
    to->add(text, size);
}

const char* find_fault(const Field& field, const uint8_t* record) {
  const Extra* extra = field.extra;
  if (extra == nullptr) return nullptr;
  const uint8_t* at = record + field.record_at;
  if (extra->pattern != nullptr && field.kind == Kind::kText) {
    Text text;
    text.add(reinterpret_cast<const char*>(at), text_size(field, record));
    regex_t pattern;
    if (regcomp(&pattern, extra->pattern, REG_EXTENDED | REG_NOSUB) != 0) {
      return "the overlay's pattern is not valid";
    }
    const bool matches = regexec(&pattern, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&pattern);
    return matches ? nullptr : "it does not match the pattern";
  }
  if (extra->names == nullptr && !extra->has_range) return nullptr;
  for (size_t n = 0; n < field.size; n += field.width) {
    const int64_t number = load_value(field, at + n);
    if (extra->names != nullptr && name_of(field, number) == nullptr) return "it has no name";
    if (!extra->has_range) continue;
    const bool is_within =
        field.kind == Kind::kSigned
            ? number >= extra->least && number <= extra->most
            : static_cast<uint64_t>(number) >= static_cast<uint64_t>(extra->least) &&
                  static_cast<uint64_t>(number) <= static_cast<uint64_t>(extra->most);
    if (!is_within) return "it is out of range";
  }
  return nullptr;
}

void format_json(const Field& field, const uint8_t* record, bool whole, Text* to) {
  if (is_hidden(field)) {
    to->add("null");
    return;
  }
  if (is_text(field)) {
    add_json_text(record + field.record_at,
                  whole ? size_without_trailing_zeros(field, record) : text_size(field, record),
                  to);
    return;
  }
  const bool number = field.kind == Kind::kSigned || field.kind == Kind::kUnsigned;
  const bool is_named =
      number && name_of(field, load_value(field, record + field.record_at)) != nullptr;
  const char* marks = !number || is_named ? "\"\"" : list_size(field) != 0 ? "[]" : nullptr;
  if (marks != nullptr) to->add(marks[0]);
  format(field, record, to);
  if (marks != nullptr) to->add(marks[1]);
}

}  // namespace store
