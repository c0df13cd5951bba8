/* Values of fields as text: how they are written, read and checked. A value is always worked on in
 * a record; the item that the library takes is made of the record at the end.
 */
#ifndef SCCTL_VALUE_H
#define SCCTL_VALUE_H

#include "catalogue.h"
#include "say.h"

namespace scctl {

/* Typed by a person, or copied from a store, whose texts are taken as they are. */
enum class Origin : uint8_t { kTyped, kCopied };

/* Writes the value into the record, or says what is wrong with it and returns kRefused. */
int parse(const Table& table, const Field& field, const char* text, size_t size, Origin origin,
          uint8_t* record);

/* The value as it is typed. Texts end at their first NUL. */
void format(const Field& field, const uint8_t* record, Text* to);

/* The same with all letters visible, for a terminal. */
void format_visible(const Field& field, const uint8_t* record, Text* to);

/* As a word of a shell command. */
void format_quoted(const Field& field, const uint8_t* record, Text* to);

/* As JSON. Whole texts keep what stands behind their first NUL. */
void format_json(const Field& field, const uint8_t* record, bool whole, Text* to);

/* A string of JSON. Bytes that are no UTF-8 become \udc80 to \udcff, as text in JSON is UTF-8. */
void add_json_text(const uint8_t* text, size_t size, Text* to);

/* How many bytes of the field are left without the zeros at its end. */
size_t filled(const Field& field, const uint8_t* record);

inline bool equal(const Field& field, const uint8_t* one, const uint8_t* other) {
  return __builtin_memcmp(one + field.record_at, other + field.record_at, field.size) == 0;
}

/* A number of 1 to 4 bytes at any place. */
int64_t load_number(const uint8_t* at, size_t width, bool is_signed);
inline int32_t load_word(const uint8_t* at) {
  return static_cast<int32_t>(load_number(at, 4, true));
}

}  // namespace scctl

#endif
