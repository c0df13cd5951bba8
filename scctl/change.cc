/* Commands that change records: add, set, del, clear, bind, unbind. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sysconfig/ap.h>

#include "commands.h"
#include "edit.h"
#include "value.h"

namespace scctl {

namespace {

/* The assignments behind the first word, and which fields they name. */
int parse_assignments(const Call& call, const Table& table, uint8_t* record, Mask* mask,
                      Spelling* spelling) {
  for (int n = 1; n < call.word_count; ++n) {
    const char* word = call.words[n];
    const Field* field;
    if (const int status = parse_assignment(table, word, record, &field, spelling); status != kOk) {
      return status;
    }
    if (mask->has(*field)) return fail(kUsage, "%s.%s stands twice", table.name, field->name);
    mask->add(*field);
  }
  return kOk;
}

}  // namespace

int run_add(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kMayHaveId, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Buffer record(table.stride);
  Mask mask(table);
  Spelling spelling = Spelling::kAsMac;
  if (const int status = parse_assignments(call, table, record.data(), &mask, &spelling);
      status != kOk) {
    return status;
  }
  const int status = add_record(call.source, table, record.data(), spelling, &target.id);
  if (status == kOk) tell("added %s/%u", table.name, target.id);
  return status;
}

int run_set(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kWithId, &target); status != kOk) {
    return status;
  }
  const Table& table = *target.table;
  Buffer record(table.stride);
  Mask mask(table);
  Spelling spelling = Spelling::kAsMac;
  if (const int status = parse_assignments(call, table, record.data(), &mask, &spelling);
      status != kOk) {
    return status;
  }
  return set_record(call.source, table, target.id, record.data(), mask, spelling);
}

int run_del(Call& call) {
  Buffer room(static_cast<size_t>(call.word_count) * sizeof(Doomed));
  auto* doomed = reinterpret_cast<Doomed*>(room.data());
  for (int n = 0; n < call.word_count; ++n) {
    Target target;
    if (const int status = parse_target(call.words[n], kWithId, &target); status != kOk) {
      return status;
    }
    doomed[n] = {target.table, target.id};
  }
  return delete_records(call.source, doomed, call.word_count);
}

int run_clear(Call& call) {
  Target target;
  if (const int status = parse_target(call.words[0], kTableAlone, &target); status != kOk) {
    return status;
  }
  return clear_table(call.source, *target.table);
}

/* ---- binding ---- */

namespace {

constexpr uint32_t kBindingAreas = bit(kApTemplateList) | bit(kManageApList);

struct Binding {
  ApTemplateListBlock* templates;
  ManageApListBlock* aps;
  uint32_t template_id;
  uint8_t bound[SC_MAC_BYTES]; /* to whom it is; zeros: nobody */

  bool is_bound() const {
    static constexpr uint8_t kNobody[SC_MAC_BYTES] = {};
    return memcmp(bound, kNobody, sizeof bound) != 0;
  }
};

/* A word that names a used record of this table. */
int parse_used(Call& call, const char* word, const char* table, Target* target) {
  if (const int status = parse_target(word, kWithId, target); status != kOk) return status;
  if (strcmp(target->table->name, table) != 0) {
    return fail(kRefused, "%s is no record of %s", word, table);
  }
  const uint8_t* record = call.source.block(target->table->area) + target->table->at +
                          (target->id - 1) * target->table->stride;
  return is_used(*target->table, record) ? kOk : fail(kRefused, "%s/%u is free", table, target->id);
}

/* Both areas are the edit's. */
int parse_binding(Call& call, Edit& edit, Binding* binding) {
  if (const int status = edit.begin(kBindingAreas); status != kOk) return status;
  Target target;
  if (const int status = parse_used(call, call.words[0], "ap_templates", &target); status != kOk) {
    return status;
  }
  void* const* blocks = call.source.blocks();
  binding->templates = static_cast<ApTemplateListBlock*>(blocks[kApTemplateList]);
  binding->aps = static_cast<ManageApListBlock*>(blocks[kManageApList]);
  binding->template_id = target.id;
  memcpy(binding->bound, binding->templates->templates[target.id - 1].bound_ap_mac, SC_MAC_BYTES);
  return kOk;
}

/* The library takes both records' bytes, the template's first. */
using BindingCall = int32_t(ApTemplateListBlock*, ManageApListBlock*, uint32_t, const uint8_t*);

void change_binding(Edit& edit, const Binding& binding, const uint8_t* mac, BindingCall* call) {
  {
    Quiet quiet;
    call(binding.templates, binding.aps, binding.template_id, mac);
  }
  edit.set_changed(kApTemplateList);
  edit.set_changed(kManageApList);
}

}  // namespace

int run_bind(Call& call) {
  Edit edit(call.source);
  Binding binding;
  if (const int status = parse_binding(call, edit, &binding); status != kOk) return status;
  Target ap;
  if (const int status = parse_used(call, call.words[1], "aps", &ap); status != kOk) return status;
  const ApInfoRecord& record = binding.aps->aps[ap.id - 1];
  uint8_t mac[SC_MAC_BYTES];
  memcpy(mac, record.ap_mac, sizeof mac);
  if (binding.is_bound() && memcmp(binding.bound, mac, sizeof mac) != 0) {
    return fail(kRefused, "%s is bound to another AP; scctl unbind %s first", call.words[0],
                call.words[0]);
  }
  if (record.group_id != 0 && record.group_id != binding.template_id) {
    return fail(kRefused, "%s is bound to ap_templates/%u; scctl unbind that first", call.words[1],
                record.group_id);
  }
  change_binding(edit, binding, mac, SC_Add_Ap_Mac2Template_By_Id);
  return kOk;
}

int run_unbind(Call& call) {
  Edit edit(call.source);
  Binding binding;
  if (const int status = parse_binding(call, edit, &binding); status != kOk) return status;
  if (!binding.is_bound()) return fail(kRefused, "%s is not bound", call.words[0]);
  change_binding(edit, binding, binding.bound, SC_Del_Ap_Mac2Template_By_Id);
  return kOk;
}

}  // namespace scctl
