/* Values of a record by the names of its members, when the contents decide which members there are.
 *
 * All names and values are gathered first. Then each is written as soon as the record so far has a
 * member of its name, those on which others depend first.
 */
#ifndef SCCTL_MEMBERS_H
#define SCCTL_MEMBERS_H

#include "commands.h"
#include "store/edit.h"
#include "store/value.h"

namespace scctl {

using namespace store;

/* Secrets that stay as they are: bytes of records, which are copied from what is there when the
 * areas are held. */
class KeptSecrets {
 public:
  void add(const Table& table, uint32_t position, const Field& field);
  /* Copies those of a table into the wanted records. A record that is new is refused. */
  int take(const Snapshot& now, Snapshot* wanted) const;

 private:
  struct Kept {
    const Table* table;
    uint32_t position;
    Field field;
  };
  Text all_; /* of Kept */
};

class Values {
 public:
  enum class From : uint8_t { kWord, kWordInHex, kFile };

  void add(const char* name, size_t length, const char* value, size_t size, From from,
           JsonKind kind, unsigned line);
  /* Tells which line the value that is written next stands in. */
  struct Lines {
    virtual void at(unsigned line) = 0;

   protected:
    ~Lines() = default;
  };
  /* Writes all into the record. The mask, where there is one, gets what was written. Prints an error
   * for a name that the record does not have, and for names of one byte whose values disagree. A
   * token is added to `kept`; without it, it only leaves the field as it is, and a record that is
   * new is refused. */
  int write(const Table& table, uint32_t position, bool is_new, uint8_t* record, Mask* mask,
            KeptSecrets* kept, Lines* lines);

 private:
  struct Value {
    size_t name, value, size; /* where they stand in the texts */
    JsonKind kind;
    From from;
    bool is_written, is_token;
    unsigned line;
  };
  Value* begin() { return reinterpret_cast<Value*>(values_.data()); }
  Value* end() { return begin() + values_.size() / sizeof(Value); }
  const char* name(const Value& value) { return texts_.c_str() + value.name; }
  const Field* find(const Table& view, const Value& value, const Field** guess);
  int write(const Table& view, const Field& field, Value* value, bool is_new, uint8_t* record);
  int check(const Table& view, const Field& field, const Value& value, uint32_t position,
            const uint8_t* before, const uint8_t* record);

  Text values_; /* of Value */
  Text texts_;
};

/* The JSON kind that an export prints for a field is this one. */
int check_json_kind(const Table& table, const Field& field, JsonKind kind);

/* Refuses values that range, names or pattern of the members do not allow, if they replace others
 * that are not zero. */
int check_replaced(const Table& table, uint32_t position, const uint8_t* now,
                   const uint8_t* wanted);

/* Prints that the record has no such field, and why. */
int unknown_member(const Table& table, uint32_t position, const uint8_t* record, const char* name,
                   size_t length);

}  // namespace scctl

#endif
