/* Makes the views of records: which members hold, and which bytes are left. */
#include <stdlib.h>
#include <string.h>

#include "store/overlay_model.h"
#include "store/value.h"

namespace store {

namespace {

/* So many views are kept. No code holds more than a few of them at a time. */
constexpr int kMostViews = 64;

bool is_one_of(const Field& field, const uint8_t* record, const Alternative* values) {
  const uint8_t* at = record + field.record_at;
  const bool is_number = field.kind >= Kind::kSigned;
  const int64_t number = is_number ? load_value(field, at) : 0;
  const char* name = is_number ? name_of(field, number) : nullptr;
  Text text;
  if (!is_number) {
    const WithSecrets secrets;
    format(field, record, &text);
  }
  for (; values != nullptr; values = values->next) {
    char* end;
    int64_t wanted;
    if (is_number ? (name != nullptr && strcmp(values->text, name) == 0) ||
                        (read_number(values->text, &end, values->text[0] == '-', 64, &wanted) &&
                         *end == '\0' && wanted == number)
                  : strcmp(values->text, text.c_str()) == 0) {
      return true;
    }
  }
  return false;
}

uint16_t count_used(const Guard& guard, const uint8_t* record) {
  const Field& field = guard.operand->field;
  const int64_t number = load_value(field, record + field.record_at);
  if (field.kind == Kind::kSigned && number < 0) return 0;
  return static_cast<uint16_t>(static_cast<uint64_t>(number) < guard.count ? number : guard.count);
}

void add_field(View* view, const Field& field) {
  if (view->table.field_count + view->table.hidden_count == static_cast<int>(view->room)) {
    view->room = 2 * view->room + 16;
    Buffer more(view->room * sizeof(Field));
    if (view->fields != nullptr) {
      memcpy(more.data(), view->fields,
             (view->table.field_count + view->table.hidden_count) * sizeof(Field));
    }
    free(view->fields);
    view->fields = reinterpret_cast<Field*>(more.release());
    view->table.fields = view->fields;
  }
  view->fields[view->table.field_count++] = field;
}

void free_view(View* view) {
  free(view->fields);
  free(view->key);
  free(view);
}

/* Marks the bits of a field, in bytes that begin at `from` of the record. */
void add_bits(const Field& field, uint32_t from, Buffer* bits) {
  for (uint32_t n = 0; n < field.size; ++n) {
    bits->data()[field.record_at - from + n] |= mask_at(field, n);
  }
}

/* Marks members with bits of a secret as secret, too. True when there is one. */
bool spread_secrets(Field* first, Field* end, uint32_t from, const uint8_t* secret) {
  bool any = false;
  for (Field* field = first; field < end; ++field) {
    for (uint32_t n = 0; n < field->size; ++n) {
      field->is_secret |= (secret[field->record_at - from + n] & mask_at(*field, n)) != 0;
    }
    any |= field->is_secret;
  }
  return any;
}

}  // namespace

struct Overlays::SpareName {
  uint32_t at;
  const char* name;
  SpareName* next;
};

Overlays::~Overlays() {
  while (views_ != nullptr) {
    View* next = views_->next;
    free_view(views_);
    views_ = next;
  }
}

namespace {

/* Finds the values of an attachment's guards. A guard whose member does not hold is 0; a member that
 * stands under the guard itself, as a magic does, is taken to hold. */
class Evaluation {
 public:
  Evaluation(const Attachment& attachment, const uint8_t* record, uint16_t* values)
      : attachment_(attachment),
        record_(record),
        values_(values),
        states_(attachment.guard_count + 1u) {
    states_.data()[0] = kKnown;
    values_[0] = 1;
  }

  // NOLINTBEGIN(misc-no-recursion): each guard is found once
  uint16_t value_of(uint16_t number) {
    uint8_t& state = states_.data()[number];
    if (state == kUnknown) {
      state = kBusy;
      values_[number] = find(*attachment_.numbered[number]);
      state = kKnown;
    }
    return values_[number];
  }

 private:
  enum : uint8_t { kUnknown, kBusy, kKnown };

  bool holds(uint16_t guard, uint16_t index) {
    return states_.data()[guard] == kBusy || value_of(guard) > index;
  }

  uint16_t find(const Guard& guard) {
    const Node& operand = *guard.operand;
    if (!holds(guard.outer, guard.outer_index) || !holds(operand.guard, operand.index)) return 0;
    return guard.values == nullptr ? count_used(guard, record_)
                                   : is_one_of(operand.field, record_, guard.values);
  }
  // NOLINTEND(misc-no-recursion)

  const Attachment& attachment_;
  const uint8_t* record_;
  uint16_t* values_;
  Buffer states_;
};

}  // namespace

/* The values of all guards, the first at 1. Without a record all of them hold. */
void Overlays::evaluate(const Attachment& attachment, const uint8_t* record,
                        uint16_t* values) const {
  if (record == nullptr) {
    values[0] = 1;
    for (uint32_t n = 1; n <= attachment.guard_count; ++n) {
      values[n] = static_cast<uint16_t>(attachment.numbered[n]->count);
    }
    return;
  }
  Evaluation evaluation(attachment, record, values);
  for (uint32_t n = 1; n <= attachment.guard_count; ++n) {
    evaluation.value_of(static_cast<uint16_t>(n));
  }
}

const char* Overlays::spare_name(uint32_t at) {
  SpareName** place = &spare_names_;
  while (*place != nullptr && (*place)->at < at) place = &(*place)->next;
  if (*place != nullptr && (*place)->at == at) return (*place)->name;
  Text name;
  name.print("%s%u", kSpare, at);
  auto* made = arena_.make<SpareName>();
  made->at = at;
  made->name = arena_.keep(name.c_str());
  made->next = *place;
  *place = made;
  return made->name;
}

/* What no member names: runs of whole bytes, and bytes of which some bits are left. Those of a secret
 * are in runs of their own. */
void Overlays::add_spares(View* view, const Field& field, const uint8_t* named,
                          const uint8_t* secret) {
  if (spare_masks_ == nullptr) {
    spare_masks_ = static_cast<const Extra**>(arena_.take(256 * sizeof(void*)));
  }
  for (uint32_t at = 0, size; at < field.size; at += size) {
    size = 1;
    const uint8_t left = static_cast<uint8_t>(~named[at]);
    if (left == 0) continue;
    Field spare = field;
    if (left == 0xff) {
      while (at + size < field.size && named[at + size] == 0 &&
             (secret[at + size] != 0) == (secret[at] != 0)) {
        ++size;
      }
    } else {
      if (spare_masks_[left] == nullptr) {
        auto* extra = arena_.make<Extra>();
        auto* mask = static_cast<uint8_t*>(arena_.take(1));
        *mask = left;
        extra->mask = mask;
        spare_masks_[left] = extra;
      }
      spare.extra = spare_masks_[left];
    }
    spare.record_at = static_cast<uint16_t>(field.record_at + at);
    spare.size = static_cast<uint16_t>(size);
    spare.name = spare.member = spare_name(spare.record_at);
    add_field(view, spare);
  }
}

/* The key has, for each attachment of the table, the values of its guards behind a 1, or a 0 if it is
 * not of the record. A view of all records has each name once, and no spares. */
View* Overlays::make_view(const Table& table, const uint16_t* key, uint32_t key_size,
                          bool is_of_all) {
  enum : uint8_t { kShown, kHidden, kSecretHidden };
  Buffer room(sizeof(View));
  auto* view = reinterpret_cast<View*>(room.release());
  view->table = table;
  view->table.base = &table;
  view->table.field_count = 0;
  Buffer fates(table.field_count);
  for (const Field& field : table) {
    const int first = view->table.field_count;
    uint8_t& fate = fates.data()[&field - table.fields];
    /* Also of a secret that does not hold: it may be left from when it did. */
    Buffer named(field.size), secret(field.size);
    const uint16_t* values = key + 1;
    for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
      if (a->table != &table) continue;
      const uint16_t* own = values;
      values += own[0] != 0 ? a->guard_count + 1 : 1;
      if (a->field != &field || own[0] == 0 || own[a->root] == 0) continue;
      fate = kHidden;
      const int known = view->table.field_count;
      for (const Node* node = a->nodes; node != nullptr; node = node->next) {
        Field made = node->field;
        if (made.is_secret) add_bits(made, field.record_at, &secret);
        if (own[node->guard] <= node->index) continue;
        if (node->is_counted) made.size = static_cast<uint16_t>(made.width * own[node->guard]);
        bool is_known = false;
        for (int n = first; n < known; ++n) {
          is_known |= strcmp(view->fields[n].name, made.name) == 0;
        }
        if (is_known) continue;
        add_bits(made, field.record_at, &named);
        add_field(view, made);
      }
    }
    if (fate == kShown) {
      add_field(view, field);
      continue;
    }
    if (!is_of_all) add_spares(view, field, named.data(), secret.data());
    if (spread_secrets(view->fields + first, view->fields + view->table.field_count,
                       field.record_at, secret.data())) {
      fate = kSecretHidden;
    }
  }
  const uint16_t shown = view->table.field_count;
  for (const Field& field : table) {
    const uint8_t fate = fates.data()[&field - table.fields];
    if (fate == kShown) continue;
    add_field(view, field);
    view->fields[view->table.field_count - 1].is_secret = fate == kSecretHidden;
  }
  view->table.hidden_count = static_cast<uint16_t>(view->table.field_count - shown);
  view->table.field_count = shown;
  view->key_size = key_size;
  Buffer kept(key_size);
  memcpy(kept.data(), key, key_size);
  view->key = reinterpret_cast<uint16_t*>(kept.release());
  return view;
}

/* Without a record all conditions hold; a position of -1 is any record. */
const Table& Overlays::find_view(const Table& of, int position, const uint8_t* record) {
  const Table& table = of.base != nullptr ? *of.base : of;
  if (!covers(table)) return table;
  uint32_t count = 1;
  for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
    if (a->table == &table) count += a->guard_count + 1u;
  }
  Buffer room(count * sizeof(uint16_t));
  auto* key = reinterpret_cast<uint16_t*>(room.data());
  key[0] = static_cast<uint16_t>(number_of(table) << 1 | (position < 0));
  bool any = false;
  count = 1;
  for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
    if (a->table != &table) continue;
    if (!a->is_of(table, position)) {
      ++count;
      continue;
    }
    any = true;
    evaluate(*a, record, key + count);
    count += a->guard_count + 1u;
  }
  if (!any) return table;
  const auto size = static_cast<uint32_t>(count * sizeof(uint16_t));
  int kept = 0;
  for (View** at = &views_; *at != nullptr; at = &(*at)->next) {
    View* view = *at;
    if (view->key_size == size && memcmp(view->key, key, size) == 0) {
      *at = view->next;
      view->next = views_;
      views_ = view;
      return view->table;
    }
    if (++kept < kMostViews || view->next == nullptr) continue;
    free_view(view->next);
    view->next = nullptr;
  }
  View* made = make_view(table, key, size, position < 0);
  made->next = views_;
  views_ = made;
  return made->table;
}

const Table& Overlays::view(const Table& table, uint32_t position, const uint8_t* record) {
  return find_view(table, static_cast<int>(position), record);
}

const Table& Overlays::names(const Table& table, int position) {
  return find_view(table, position, nullptr);
}

bool Overlays::covers(const Table& table) const {
  const Attachment* a = attachments_;
  while (a != nullptr && !a->is_of(table, -1)) a = a->next;
  return a != nullptr;
}

namespace {

/* "mode is 2, fixed.address needs 1" */
void add_reason(const Guard& guard, const char* needing, const uint8_t* record, Text* to) {
  to->print("%s is ", guard.operand->field.name);
  format_part(guard.operand->field, record, false, to);
  to->print(", %s needs ", needing);
  if (guard.values == nullptr) to->add("more");
  for (const Alternative* value = guard.values; value != nullptr; value = value->next) {
    add_word(value->text, strlen(value->text), to);
    if (value->next != nullptr) to->add(" or ");
  }
  to->add('\n');
}

}  // namespace

void Overlays::add_reasons(const Table& table, uint32_t position, const uint8_t* record,
                           const char* member, Text* to) const {
  for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
    if (!a->is_of(table, static_cast<int>(position))) continue;
    Buffer room((a->guard_count + 1u) * sizeof(uint16_t));
    auto* values = reinterpret_cast<uint16_t*>(room.data());
    evaluate(*a, record, values);
    uint16_t n = 1;
    if (values[a->root] == 0) {
      while (values[n] != 0) ++n;
      to->print("%s: ", a->field->name);
      add_reason(*a->numbered[n], a->type->name, record, to);
      continue;
    }
    for (const Node* node = a->nodes; member != nullptr && node != nullptr; node = node->next) {
      if (strcmp(node->field.name, member) != 0 || values[node->guard] > node->index) continue;
      const Guard* guard = a->numbered[node->guard];
      while (values[guard->outer] <= guard->outer_index) guard = a->numbered[guard->outer];
      add_reason(*guard, member, record, to);
      break;
    }
  }
}

const Field* Overlays::find_condition(const Table& table, uint32_t position,
                                      const char* name) const {
  for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
    if (!a->is_of(table, static_cast<int>(position))) continue;
    for (const Node* node = a->nodes; node != nullptr; node = node->next) {
      if (node->is_condition && strcmp(node->field.name, name) == 0) return &node->field;
    }
  }
  return nullptr;
}

bool Overlays::is_secret(const char* name, size_t length) {
  Text whole;
  whole.add(name, length);
  const int spare = is_spare_name(whole.c_str()) ? atoi(whole.c_str() + strlen(kSpare)) : -1;
  for (const Attachment* a = attachments_; a != nullptr; a = a->next) {
    for (const Node* node = a->nodes; node != nullptr; node = node->next) {
      const int place = spare - node->field.record_at;
      if (node->field.is_secret && place >= 0 && place < node->field.size) return true;
    }
    const Table& all = names(*a->table, a->id == 0 ? -1 : static_cast<int>(a->id) - 1);
    const Field* field = find_field(all, name, length);
    if (field != nullptr && field->is_secret) return true;
  }
  return false;
}

}  // namespace store
