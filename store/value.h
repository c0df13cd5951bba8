/* Values of fields as text: how they are written, read and checked. A value is always worked on in
 * a record.
 */
#ifndef STORE_VALUE_H
#define STORE_VALUE_H

#include "store/catalogue.h"
#include "store/say.h"

namespace store {

/* Typed by a person, or copied from a store, whose texts are taken as they are. */
enum class Origin : uint8_t { kTyped, kCopied };

/* Writes the value into the record, whose field is zero yet, or says what is wrong with it and
 * returns kRefused. The text is terminated. */
int parse(const Table& table, const Field& field, const char* text, size_t size, Origin origin,
          uint8_t* record);

/* FIELD:hex=HEX: the same for the bytes of a text, unchecked. */
int parse_text_bytes(const Table& table, const Field& field, const char* hex, uint8_t* record);

inline bool is_text(const Field& field) {
  return field.kind == Kind::kText || field.kind == Kind::kMacText;
}

/* As the library compares texts that are keys: without case, up to their ends. */
bool is_same_text(const Field& field, const uint8_t* one, const uint8_t* other);
/* Both spellings of a MAC address as text are the same address: - and :, letters of either case.
 * Texts that are none are compared without case, as the library compares all of them. */
bool is_same_mac_text(const Field& field, const uint8_t* one, const uint8_t* other);

/* The value as it is. Texts end at their first NUL. */
void format(const Field& field, const uint8_t* record, Text* to);

/* The same for a person. */
void format_shown(const Field& field, const uint8_t* record, Text* to);

/* The same as part of a line, in quotes where there are letters that words have none of; a whole
 * text goes on behind its first NUL. */
void format_part(const Field& field, const uint8_t* record, bool whole, Text* to);

/* " FIELD=VALUE", or " FIELD:hex=HEX" for what cannot be said so or is not to be checked: words
 * that batch and every POSIX shell read alike. */
void format_assignment(const Field& field, const uint8_t* record, bool checked, Text* to);

/* A word as it is typed, of anything: in quotes where it needs them. */
void add_word(const char* text, size_t size, Text* to);

/* As JSON. Whole texts keep what stands behind their first NUL. */
void format_json(const Field& field, const uint8_t* record, bool whole, Text* to);

/* How many bytes of the field are left without the zeros at its end. */
size_t size_without_trailing_zeros(const Field& field, const uint8_t* record);

inline bool equal(const Field& field, const uint8_t* one, const uint8_t* other) {
  return __builtin_memcmp(one + field.record_at, other + field.record_at, field.size) == 0;
}

/* A number of 1 to 4 bytes at any place. */
int64_t load_number(const uint8_t* at, size_t width, bool is_signed);
inline int32_t load_word(const uint8_t* at) {
  return static_cast<int32_t>(load_number(at, 4, true));
}

}  // namespace store

#endif
