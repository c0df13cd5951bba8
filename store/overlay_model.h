/* What an overlay's file says, and what is made of it. */
#ifndef STORE_OVERLAY_MODEL_H
#define STORE_OVERLAY_MODEL_H

#include <string.h>
#include <sys/types.h>

#include "store/overlay.h"

namespace store {

/* A value that a condition takes. */
struct Alternative {
  const char* text;
  const Alternative* next;
};

/* The named member has one of the values. */
struct Condition {
  const char* name;
  const Alternative* values;
  const Condition* next;
};

struct Enum {
  const char* name;
  const EnumName* names;
  Enum* next;
};

/* More dimensions than any array has. */
constexpr uint32_t kMostDimensions = 4;

/* Says that a hash is new, mostly without a search. */
struct SeenHashes {
  uint8_t bits[1024];

  bool add(uint32_t hash) {
    uint8_t& byte = bits[hash / 8 % sizeof bits];
    const auto bit = static_cast<uint8_t>(1 << hash % 8);
    const bool is_seen = (byte & bit) != 0;
    byte |= bit;
    return is_seen;
  }
};

struct Member {
  const char* name;
  uint32_t hash;
  Member* next;
  unsigned reading; /* the number of the file that named it last */
  bool has_at, has_kind, is_signed, is_bit, is_enum;
  Kind kind;
  uint32_t at, size, bit;
  uint32_t dimensions;
  uint32_t counts[kMostDimensions];
  const char* type;  /* null: it has a kind */
  const char* names; /* of an enum */
  const char* used;  /* the member that counts the elements */
  const char* range[2];
  const Condition* conditions;
  Extra extra;
};

struct Type {
  const char* name;
  Type* next;
  uint32_t size;
  bool has_size, is_union;
  const Condition* conditions;
  Member* members;
  SeenHashes seen;
};

/* A line of "at". */
struct Place {
  const char* path;
  const char* type;
  Place* next;
};

struct FileId {
  dev_t device;
  ino_t inode;
  FileId* next;
};

struct Model {
  const char* path;
  Enum* enums;
  Type* types;
  Place* places;
  FileId* files; /* the file, and behind it those that it completes */
  Model* next;
};

/* What decides whether members hold: a condition, or the number of used elements. Its value is 0 or
 * 1, or that number. */
struct Guard {
  const char* scope; /* the names of the types around it, "a.b[1]." */
  const char* name;
  const Alternative* values; /* null: it counts elements */
  uint32_t count;            /* at most */
  uint16_t outer, outer_index;
  const Node* operand;
  const char* type; /* that needs it */
  Guard* next;
};

struct Node {
  Field field;
  const char* own; /* its name without the field's, which is in front when the name was taken */
  uint32_t hash;   /* of its own name */
  uint16_t guard, index; /* it holds while the guard's value is above the index; guard 0: always */
  bool is_counted;       /* has so many numbers as the guard says */
  bool is_condition;
  Node* next;
};

struct Attachment {
  const char* path;
  const Table* table;
  uint32_t id; /* 0: all records */
  const Field* field;
  Type* type;
  const Model* model;
  Node* nodes;
  Node** end;
  Guard* guards;
  Guard** guards_end;
  const Guard** numbered; /* the guards, the first at 1 */
  uint32_t node_count;    /* and of types */
  uint16_t guard_count;
  uint16_t root; /* the guard of the type itself; 0: it always holds */
  SeenHashes seen;
  Attachment* next;

  bool is_of(const Table& of, int position) const {
    return table == (of.base != nullptr ? of.base : &of) &&
           (id == 0 || position < 0 || id == static_cast<uint32_t>(position) + 1);
  }
};

/* A table as it is for records that decide alike. The fields and the key stand behind it. */
struct View {
  Table table;
  Field* fields;
  uint32_t room;
  uint16_t* key;
  uint32_t key_size;
  View* next;
};

inline uint32_t hash_of(const char* name) { return hash_of(name, strlen(name)); }

template <class Thing>
Thing* find_named(Thing* first, const char* name) {
  while (first != nullptr && strcmp(first->name, name) != 0) first = first->next;
  return first;
}

}  // namespace store

#endif
