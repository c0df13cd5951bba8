/* Field values as text: how they are written, read and checked. A value always stands in a record.
 */
#ifndef STORE_VALUE_H
#define STORE_VALUE_H

#include "store/catalogue.h"
#include "store/say.h"

namespace store {

/* Typed by a person, or copied from a store. Copied texts are accepted as they are. */
enum class Origin : uint8_t { kTyped, kCopied };

/* Whether secrets are shown. Otherwise a token stands for each. */
extern bool g_shows_secrets;
/* While it lives, secrets are formatted as they are: for a comparison. */
class WithSecrets {
 public:
  WithSecrets() : before_(g_shows_secrets) { g_shows_secrets = true; }
  ~WithSecrets() { g_shows_secrets = before_; }
  WithSecrets(const WithSecrets&) = delete;
  WithSecrets& operator=(const WithSecrets&) = delete;

 private:
  const bool before_;
};
inline constexpr char kSecret[] = "<secret>";
inline bool is_hidden(const Field& field) { return field.is_secret && !g_shows_secrets; }
/* Whether a value is the token: it leaves a secret as it is. */
bool is_token(const Field& field, const char* text, size_t size);

/* Writes the value into the record. If the value is invalid, prints an error message and returns
 * kRefused. The text is terminated. */
int parse(const Table& table, const Field& field, const char* text, size_t size, Origin origin,
          uint8_t* record);

/* What range, names and pattern say against the value; null: nothing. */
const char* find_fault(const Field& field, const uint8_t* record);

/* FIELD:hex=HEX: writes the bytes of a text or of an overlay's member, without a check. */
int parse_text_bytes(const Table& table, const Field& field, const char* hex, uint8_t* record);

inline bool is_text(const Field& field) {
  return field.kind == Kind::kText || field.kind == Kind::kMacText;
}

/* Compares as the library compares texts that are keys: without case, up to their ends. */
bool is_same_text(const Field& field, const uint8_t* one, const uint8_t* other);
/* Whether two MAC texts are the same address: - and : are equal, and so are letters of either case.
 * Texts that are not MAC addresses are compared without case, as the library compares all of
 * them. */
bool is_same_mac_text(const Field& field, const uint8_t* one, const uint8_t* other);

/* Adds the value as it is. A text ends at its first NUL. */
void format(const Field& field, const uint8_t* record, Text* to);

/* Adds the value as it may be displayed. */
void format_shown(const Field& field, const uint8_t* record, Text* to);

/* The same as part of a line, in quotes where it has characters that a bare word cannot have. If
 * `whole`, the text continues after its first NUL. */
void format_part(const Field& field, const uint8_t* record, bool whole, Text* to);

/* Adds " FIELD=VALUE", or " FIELD:hex=HEX" for a value that cannot be written so or must not be
 * checked. batch and every POSIX shell read these words alike, if they are quoted. */
void format_assignment(const Field& field, const uint8_t* record, bool checked, Text* to,
                       bool quoted = true);

/* Adds text as a word of a command line, in quotes where it needs them. */
void add_word(const char* text, size_t size, Text* to);

/* Adds the value as JSON. Whole texts include what follows their first NUL. */
void format_json(const Field& field, const uint8_t* record, bool whole, Text* to);

/* The size of the field without the zeros at its end. */
size_t size_without_trailing_zeros(const Field& field, const uint8_t* record);

/* The field's own bits in one of its bytes. */
inline uint8_t mask_at(const Field& field, size_t at) {
  return field.extra == nullptr || field.extra->mask == nullptr ? 0xff : field.extra->mask[at];
}

bool equal(const Field& field, const uint8_t* one, const uint8_t* other);
/* Copies the field from a record to another one. */
void copy_field(const Field& field, uint8_t* to, const uint8_t* from);
/* The size of the field in a JSON list; 0: it is no list. */
size_t list_size(const Field& field);

bool has_equal_fields(const Table& table, const uint8_t* one, const uint8_t* other);

/* A number of the field; `at` is the first of its bytes. */
int64_t load_value(const Field& field, const uint8_t* at);
/* The name that the field gives to a number; null: none. */
const char* name_of(const Field& field, int64_t number);
/* Reads a number of 1 to 8 bytes with a sign or without one. False if it does not fit. */
bool read_number(const char* text, char** end, bool is_signed, int bits, int64_t* number);

/* A number of 1 to 8 bytes at any address. */
int64_t load_number(const uint8_t* at, size_t width, bool is_signed);
inline int32_t load_word(const uint8_t* at) {
  return static_cast<int32_t>(load_number(at, 4, true));
}

}  // namespace store

#endif
