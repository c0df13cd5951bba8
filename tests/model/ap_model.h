/* The naive model of the access-point tables, in the manner of model.h: bytes and golden numbers
 * alone (golden/id_tables.csv). In these tables a record is free when its id is 0. */
#ifndef MODEL_AP_MODEL_H
#define MODEL_AP_MODEL_H

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "model/model.h"
#include "support/rows.h"

namespace sc_test {

class ApModel {
 public:
  std::map<std::string, Bytes> areas;
  std::set<std::string> without_lock;
  std::vector<std::string> journal;
  std::string printed;

  void forget();

  int32_t by_id(const IdTableRow& row, uint32_t id);
  int32_t by_mac(const IdTableRow& row, const uint8_t* mac);
  int32_t claim(const IdTableRow& row);
  int32_t count(const IdTableRow& row);
  int32_t del_by_mac(const IdTableRow& row, const uint8_t* mac);

  int32_t claim_ap(const uint8_t* limits);
  int32_t online();
  int32_t offline();
  std::vector<uint32_t> used_positions();
  int32_t add_group_info(const uint8_t* info, int group, const uint8_t* mac);
  int32_t clean_group_info(const uint8_t* mac);
  int32_t clear_used();
  void empty_fragment_buffers();

  int32_t del_template(uint32_t position);
  void bind(uint32_t id, const uint8_t* mac);
  void unbind(uint32_t id, const uint8_t* mac);

  uint8_t* record(const IdTableRow& row, uint32_t position);

 private:
  uint32_t id_of(const IdTableRow& row, uint32_t position);
  void clear(const IdTableRow& row, uint32_t position);
  bool open(const IdTableRow& row);
  void close();
  void log_lock(const char* what, const IdTableRow& row, uint32_t position);

  int opened_ = 0;
  std::vector<int> open_;
};

}  // namespace sc_test

#endif
