/* Overlays: names for the members of opaque fields, read from JSON files.
 *
 * The members of a type may depend on the contents: on the value of a member (a magic, a version, the
 * tag of a union) or on how many elements of an array are used. So each record has its own view, a
 * table with its own fields: the members that hold for it, and the bytes that are left as spare_N.
 * Together they name every bit of a field once, or more often where members of a union overlap.
 *
 * Views are kept, and made again only for contents that decide otherwise.
 */
#ifndef STORE_OVERLAY_H
#define STORE_OVERLAY_H

#include "store/catalogue.h"
#include "store/say.h"

namespace store {

/* Memory that is freed as a whole. It is zeroed. */
class Arena {
 public:
  Arena() = default;
  ~Arena();
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  void* take(size_t size);
  const char* keep(const char* text);
  template <class Thing>
  Thing* make() {
    return static_cast<Thing*>(take(sizeof(Thing)));
  }

 private:
  struct Block {
    Block* next;
  };
  Block* first_ = nullptr;
  uint8_t* at_ = nullptr;
  size_t left_ = 0;
};

struct Model; /* the types of a file */
struct Type;
struct Attachment; /* a type in the place of a field */
struct Node;       /* a member, with the conditions under which it holds */
struct Place;
struct View;

/* The overlays that a command uses. */
class Overlays {
 public:
  Overlays() = default;
  ~Overlays();
  Overlays(const Overlays&) = delete;
  Overlays& operator=(const Overlays&) = delete;

  /* Reads a file, and those that it completes. If it is not good, prints an error and returns
   * kRefused; then nothing of it counts. A file that another one completes does not count twice. */
  int load(const char* path, bool is_of_folder = false);
  /* Reads all files of a folder, in the order of their names. Prints an error for each that is not
   * good, and leaves it out. */
  void load_folder(const char* path);

  bool empty() const { return attachments_ == nullptr; }
  /* Whether any record of the table has members. */
  bool covers(const Table& table) const;
  const Table& view(const Table& table, uint32_t position, const uint8_t* record);
  /* All members, whether they hold or not; of one record, or of all for a position of -1. */
  const Table& names(const Table& table, int position);
  /* Adds a line for each type that does not hold for the record, "FIELD: why", and one that tells why
   * the member of that name does not hold. */
  void add_reasons(const Table& table, uint32_t position, const uint8_t* record, const char* member,
                   Text* to) const;
  /* A member on whose value others depend; null: there is none of this name. */
  const Field* find_condition(const Table& table, uint32_t position, const char* name) const;
  /* Whether a member of this name, of any table, is a secret, or a field with a secret in it. */
  bool is_secret(const char* name, size_t length);

 private:
  const Table& find_view(const Table& table, int position, const uint8_t* record);
  View* make_view(const Table& table, const uint16_t* key, uint32_t key_size, bool is_of_all);
  void evaluate(const Attachment& attachment, const uint8_t* record, uint16_t* values) const;
  void add_spares(View* view, const Field& field, const uint8_t* named, const uint8_t* secret);
  const char* spare_name(uint32_t at);
  bool attach(Model* model, Text* fault);
  void add(Attachment* attachment);
  void detach(const Model* model, Attachment** to);
  bool attach(Model* model, const Place& place, Attachment* attachment, Text* fault);

  struct SpareName;

  Arena arena_;
  SpareName* spare_names_ = nullptr;
  const Extra** spare_masks_ = nullptr; /* of bytes of which only some bits have no name */
  Model* models_ = nullptr;
  Attachment* attachments_ = nullptr;
  View* views_ = nullptr; /* the one that was used last is the first */
  uint32_t node_count_ = 0;
};

/* spare_N: the name of bytes that no member names. */
inline constexpr char kSpare[] = "spare_";
bool is_spare_name(const char* name);

/* Null: none. */
extern Overlays* g_overlays;

/* The table with the fields that this record has. */
inline const Table& view_of(const Table& table, uint32_t position, const uint8_t* record) {
  return g_overlays == nullptr ? table : g_overlays->view(table, position, record);
}
/* The table with all names that a record of it may have. */
inline const Table& names_of(const Table& table, int position = -1) {
  return g_overlays == nullptr ? table : g_overlays->names(table, position);
}
inline bool is_covered(const Table& table) {
  return g_overlays != nullptr && g_overlays->covers(table);
}

}  // namespace store

#endif
