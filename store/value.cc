/* Text to value and back. */
#include "store/value.h"

#include <arpa/inet.h>
#include <ctype.h>
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

void store_number(uint8_t* at, size_t width, int64_t value) {
  for (size_t n = 0; n < width; ++n) at[n] = static_cast<uint8_t>(value >> (8 * n));
}

/* Reads one number, or several with commas between them. */
int parse_numbers(const Table& table, const Field& field, const char* text, size_t size,
                  uint8_t* to) {
  const bool is_signed = field.kind == Kind::kSigned;
  const int bits = 8 * field.width;
  const long long least = is_signed ? -(1LL << (bits - 1)) : 0;
  const long long most = (1LL << (is_signed ? bits - 1 : bits)) - 1;
  const size_t count = field.size / field.width;
  const char* const end = text + size;
  const char* at = text;
  for (size_t n = 0; n < count; ++n, ++at) {
    char* rest = const_cast<char*>(at);
    const char* digits = at + (*at == '-');
    const int base = digits[0] == '0' && (digits[1] | ' ') == 'x' ? 16 : 10;
    const long long value =
        isdigit(static_cast<unsigned char>(*digits)) ? strtoll(at, &rest, base) : 0;
    const char expected = n + 1 < count ? ',' : '\0';
    if (rest == at || rest > end || (rest == end ? '\0' : *rest) != expected) {
      return count == 1
                 ? fail(kRefused, "%s.%s: '%s' is not a number", table.name, field.name, text)
                 : fail(kRefused, "%s.%s: '%s' is not %zu numbers with commas between them",
                        table.name, field.name, text, count);
    }
    if (value < least || value > most) {
      return fail(kRefused, "%s.%s: %.*s is not within %lld to %lld", table.name, field.name,
                  static_cast<int>(rest - at), at, least, most);
    }
    store_number(to + n * field.width, field.width, value);
    at = rest;
  }
  return kOk;
}

size_t text_size(const Field& field, const uint8_t* record) {
  return strnlen(reinterpret_cast<const char*>(record) + field.record_at, field.size);
}

void add_hex(const uint8_t* bytes, size_t size, Text* to) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (size_t n = 0; n < size; ++n) {
    to->add(kDigits[bytes[n] >> 4]);
    to->add(kDigits[bytes[n] & 0xf]);
  }
}

}  // namespace

int64_t load_number(const uint8_t* at, size_t width, bool is_signed) {
  if (width == 0 || width > sizeof(uint64_t)) __builtin_unreachable();
  uint64_t value = 0;
  for (size_t n = 0; n < width; ++n) value |= static_cast<uint64_t>(at[n]) << (8 * n);
  const uint64_t sign = 1ULL << (8 * width - 1);
  if (is_signed && (value & sign) != 0) value |= ~(sign - 1);
  return static_cast<int64_t>(value);
}

size_t size_without_trailing_zeros(const Field& field, const uint8_t* record) {
  size_t size = field.size;
  const uint8_t* at = record + field.record_at;
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
    return fail(kRefused, "%s.%s: '%s' is not a valid %s", table.name, field.name, text, what);
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
    case Kind::kText: memcpy(to, text, size); return kOk;
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
      return parse_hex(text, size, to) ? kOk : refuse("row of hex digits, two for each byte");
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  return parse_numbers(table, field, text, size, to);
}

int parse_text_bytes(const Table& table, const Field& field, const char* hex, uint8_t* record) {
  if (!is_text(field)) {
    return fail(kUsage, "%s.%s is not a text; :hex is for texts only", table.name, field.name);
  }
  const size_t digits = strlen(hex);
  if (digits > 2u * field.size) {
    return fail(kRefused, "%s.%s: %zu digits, at most %u fit", table.name, field.name, digits,
                2u * field.size);
  }
  if (parse_hex(hex, digits, record + field.record_at)) return kOk;
  return fail(kRefused, "%s.%s: '%s' is not a valid row of hex digits, two for each byte",
              table.name, field.name, hex);
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
  switch (field.kind) {
    case Kind::kText:
    case Kind::kMacText:
      to->add(reinterpret_cast<const char*>(at), text_size(field, record));
      return;
    case Kind::kAddress: to->print("%u.%u.%u.%u", at[0], at[1], at[2], at[3]); return;
    case Kind::kMac:
      to->print("%02x:%02x:%02x:%02x:%02x:%02x", at[0], at[1], at[2], at[3], at[4], at[5]);
      return;
    case Kind::kBytes: add_hex(at, size_without_trailing_zeros(field, record), to); return;
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  for (size_t n = 0; n < field.size; n += field.width) {
    to->print(n == 0 ? "%lld" : ",%lld", static_cast<long long>(load_number(
                                             at + n, field.width, field.kind == Kind::kSigned)));
  }
}

void format_shown(const Field& field, const uint8_t* record, Text* to) {
  if (!is_text(field)) {
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
  if (!is_text(field)) {
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
  const auto* text = reinterpret_cast<const char*>(record) + field.record_at;
  const size_t size = size_without_trailing_zeros(field, record);
  if (!is_text(field)) {
    to->print(" %s=", field.name);
    format(field, record, to);
    return;
  }
  uint8_t mac[SC_MAC_BYTES];
  const bool typed = checked && (field.kind == Kind::kText || parse_mac(text, size, mac));
  if (!typed || !is_all_harmless(text, size)) {
    to->print(" %s:hex=", field.name);
    add_hex(record + field.record_at, size, to);
    return;
  }
  to->print(" %s=", field.name);
  if (quoted && size > 0 && !is_bare(text, size))
    add_quoted(text, size, to);
  else
    to->add(text, size);
}

void format_json(const Field& field, const uint8_t* record, bool whole, Text* to) {
  if (is_text(field)) {
    add_json_text(record + field.record_at,
                  whole ? size_without_trailing_zeros(field, record) : text_size(field, record),
                  to);
    return;
  }
  const bool numbers = field.kind == Kind::kSigned || field.kind == Kind::kUnsigned;
  const char* marks = !numbers ? "\"\"" : field.size > field.width ? "[]" : nullptr;
  if (marks != nullptr) to->add(marks[0]);
  format(field, record, to);
  if (marks != nullptr) to->add(marks[1]);
}

}  // namespace store
