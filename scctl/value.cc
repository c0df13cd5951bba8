/* Text to value and back. */
#include "value.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sysconfig/core.h>

namespace scctl {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c |= ' ';
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/* Two digits; -1 when they are none. */
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

/* One number, or several with commas between them. */
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
    char* rest;
    const long long value = strtoll(at, &rest, 0);
    const char expected = n + 1 < count ? ',' : '\0';
    if (rest == at || rest > end || (rest == end ? '\0' : *rest) != expected ||
        isspace(static_cast<unsigned char>(*at))) {
      return count == 1 ? fail(kRefused, "%s.%s: '%s' is no number", table.name, field.name, text)
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

bool is_text(const Field& field) {
  return field.kind == Kind::kText || field.kind == Kind::kMacText;
}

bool is_plain(unsigned char c) { return c >= ' ' && c != 0x7f; }

/* The length of the UTF-8 letter at the text's start; 0 when it is none. */
size_t utf8_letter(const uint8_t* text, size_t size) {
  if (text[0] < 0x80) return 1;
  const size_t length = text[0] >= 0xf0 ? 4 : text[0] >= 0xe0 ? 3 : 2;
  if (text[0] < 0xc2 || text[0] > 0xf4 || length > size) return 0;
  for (size_t n = 1; n < length; ++n) {
    if ((text[n] & 0xc0) != 0x80) return 0;
  }
  /* Longer than need be, halves of pairs, and behind the last letter. */
  const bool bad = (text[0] == 0xe0 && text[1] < 0xa0) || (text[0] == 0xed && text[1] > 0x9f) ||
                   (text[0] == 0xf0 && text[1] < 0x90) || (text[0] == 0xf4 && text[1] > 0x8f);
  return bad ? 0 : length;
}

}  // namespace

void add_json_text(const uint8_t* text, size_t size, Text* to) {
  to->add('"');
  for (size_t n = 0; n < size;) {
    const size_t length = utf8_letter(text + n, size - n);
    if (length == 0) {
      to->print("\\udc%02x", text[n]);
    } else if (length == 1 && !is_plain(text[n])) {
      to->print("\\u%04x", text[n]);
    } else {
      if (text[n] == '"' || text[n] == '\\') to->add('\\');
      to->add(reinterpret_cast<const char*>(text) + n, length);
    }
    n += length == 0 ? 1 : length;
  }
  to->add('"');
}

int64_t load_number(const uint8_t* at, size_t width, bool is_signed) {
  uint64_t value = 0;
  for (size_t n = 0; n < width; ++n) value |= static_cast<uint64_t>(at[n]) << (8 * n);
  const uint64_t sign = 1ULL << (8 * width - 1);
  if (is_signed && (value & sign) != 0) value |= ~(sign - 1);
  return static_cast<int64_t>(value);
}

size_t filled(const Field& field, const uint8_t* record) {
  size_t size = field.size;
  const uint8_t* at = record + field.record_at;
  static constexpr uint8_t kZeros[256] = {};
  while (size >= sizeof kZeros && memcmp(at + size - sizeof kZeros, kZeros, sizeof kZeros) == 0) {
    size -= sizeof kZeros;
  }
  while (size > 0 && at[size - 1] == 0) --size;
  return size;
}

int parse(const Table& table, const Field& field, const char* text, size_t size, Origin origin,
          uint8_t* record) {
  uint8_t* to = record + field.record_at;
  const auto refuse = [&](const char* what) {
    return fail(kRefused, "%s.%s: '%s' is no %s", table.name, field.name, text, what);
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
      if (inet_pton(AF_INET, text, &address) != 1) {
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
    case Kind::kBytes: {
      memset(to, 0, field.size);
      return parse_hex(text, size, to) ? kOk : refuse("row of hex digits, two for a byte");
    }
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  return parse_numbers(table, field, text, size, to);
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
    case Kind::kBytes: add_hex(at, filled(field, record), to); return;
    case Kind::kSigned:
    case Kind::kUnsigned: break;
  }
  for (size_t n = 0; n < field.size; n += field.width) {
    to->print(n == 0 ? "%lld" : ",%lld", static_cast<long long>(load_number(
                                             at + n, field.width, field.kind == Kind::kSigned)));
  }
}

void format_visible(const Field& field, const uint8_t* record, Text* to) {
  if (!is_text(field)) {
    format(field, record, to);
    return;
  }
  const uint8_t* at = record + field.record_at;
  const size_t size = text_size(field, record);
  for (size_t n = 0; n < size;) {
    const size_t length = utf8_letter(at + n, size - n);
    if (length == 0 || !is_plain(at[n])) {
      to->print("\\x%02x", at[n++]);
      continue;
    }
    to->add(reinterpret_cast<const char*>(at) + n, length);
    n += length;
  }
}

void format_quoted(const Field& field, const uint8_t* record, Text* to) {
  Text value;
  format(field, record, &value);
  bool bare = value.size() > 0;
  bool plain = true;
  for (const char* c = value.c_str(); *c != '\0'; ++c) {
    bare = bare && (isalnum(static_cast<unsigned char>(*c)) || strchr("_-.,:/@%+", *c) != nullptr);
    plain = plain && is_plain(static_cast<unsigned char>(*c)) && *c != '\'';
  }
  if (bare) {
    to->add(value.c_str());
    return;
  }
  to->add(plain ? "'" : "$'");
  for (const char* c = value.c_str(); *c != '\0'; ++c) {
    if (!is_plain(static_cast<unsigned char>(*c))) {
      to->print("\\x%02x", static_cast<unsigned char>(*c));
      continue;
    }
    if (!plain && (*c == '\'' || *c == '\\')) to->add('\\');
    to->add(*c);
  }
  to->add('\'');
}

void format_json(const Field& field, const uint8_t* record, bool whole, Text* to) {
  if (is_text(field)) {
    add_json_text(record + field.record_at,
                  whole ? filled(field, record) : text_size(field, record), to);
    return;
  }
  const bool numbers = field.kind == Kind::kSigned || field.kind == Kind::kUnsigned;
  const char* marks = !numbers ? "\"\"" : field.size > field.width ? "[]" : nullptr;
  if (marks != nullptr) to->add(marks[0]);
  format(field, record, to);
  if (marks != nullptr) to->add(marks[1]);
}

}  // namespace scctl
