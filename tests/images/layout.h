/* docs/layout.json as the tests use it: fields found by name, and names found by offset. */
#ifndef IMAGES_LAYOUT_H
#define IMAGES_LAYOUT_H

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

namespace sc_test {

class Layout {
 public:
  struct Span {
    std::string path; /* such as "rules[3].start_addr" */
    size_t offset, size;
    size_t element; /* bytes of one element of an array, else the size */
  };

  struct Area {
    std::string name, block, stem; /* the AP users have no stem */
  };

  Layout();

  /* In directory order. */
  const std::vector<Area>& areas() const { return areas_; }
  const std::string& block_of(const std::string& area) const;

  size_t size_of(const std::string& name) const { return find(name).size; }
  /* A field by its path, through records and array elements. */
  Span at_path(const std::string& name, const std::string& path) const;
  /* The innermost field that holds the byte. */
  Span at_offset(const std::string& name, size_t offset) const;

 private:
  struct Field {
    std::string name, type;
    size_t offset, size, element;
  };
  struct Struct {
    size_t size;
    std::vector<Field> fields;
  };

  const Struct& find(const std::string& name) const;

  std::vector<Area> areas_;
  std::map<std::string, Struct> structs_;
};

}  // namespace sc_test

#endif
