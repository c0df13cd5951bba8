/* Puts the types of an overlay into the places of fields: checks them, and makes a node of each member
 * under its whole name. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "store/overlay_model.h"
#include "store/value.h"

namespace store {

namespace {

constexpr uint32_t kMostNodes = 16384;
constexpr char kTooMany[] = "more than 16384 members and types in all";
constexpr int kDeepest = 16;
constexpr uint32_t kMacTextSize = 17;

bool is_of_numbers(const Member& member) {
  return member.type == nullptr && !member.is_enum && !member.is_bit &&
         (member.kind == Kind::kSigned || member.kind == Kind::kUnsigned);
}

/* Checks the types of a model, each by itself. */
class Checker {
 public:
  Checker(Arena& arena, Model& model, Text* fault) : arena_(arena), model_(model), fault_(*fault) {}

  bool check() {
    for (Type* type = model_.types; type != nullptr; type = type->next) {
      if (!check(*type)) return false;
    }
    return true;
  }

 private:
  bool refuse(const Type& type, const Member* member, const char* what) {
    fault_.print("%s: %s%s%s: %s", model_.path, type.name, member != nullptr ? "." : "",
                 member != nullptr ? member->name : "", what);
    return false;
  }

  bool check(Type& type) {
    if (!type.has_size)
      return refuse(type, nullptr, "it has no size, and no completed file has it");
    Buffer taken(type.size + 1);
    for (Member* member = type.members; member != nullptr; member = member->next) {
      if (!check(type, *member)) return false;
      uint64_t whole = member->size;
      for (uint32_t n = 0; n < member->dimensions; ++n) {
        whole *= member->counts[n];
        if (whole > type.size) break;
      }
      if (member->at > type.size || whole > type.size - member->at) {
        return refuse(type, member, "it ends behind its type");
      }
      for (uint32_t n = 0; n < whole && !type.is_union; ++n) {
        const uint8_t own = member->extra.mask != nullptr ? member->extra.mask[n] : 0xff;
        uint8_t& byte = taken.data()[member->at + n];
        if ((byte & own) != 0) return refuse(type, member, "another member has its bits, too");
        byte |= own;
      }
    }
    return true;
  }

  /* Sets what follows from the kind. */
  bool check(const Type& type, Member& member) {
    if (member.type != nullptr) {
      const Type* other = find_named(model_.types, member.type);
      if (other == nullptr) return refuse(type, &member, "its type is missing");
      member.size = other->size;
      return true;
    }
    if (!member.has_kind) return refuse(type, &member, "it has neither a kind nor a type");
    Extra& extra = member.extra;
    const bool is_number = member.kind == Kind::kSigned || member.kind == Kind::kUnsigned;
    if ((member.names != nullptr || member.range[0] != nullptr) && !is_number) {
      return refuse(type, &member, "only a number has names or a range");
    }
    if (extra.pattern != nullptr && member.kind != Kind::kText) {
      return refuse(type, &member, "only a text has a pattern");
    }
    if (member.used != nullptr && member.dimensions == 0) {
      return refuse(type, &member, "it is no array, and is not counted");
    }
    if (member.names != nullptr) {
      const Enum* names = find_named(model_.enums, member.names);
      if (names == nullptr) return refuse(type, &member, "its names are missing");
      extra.names = names->names;
      member.is_enum = true;
      for (const EnumName* name = extra.names; name != nullptr; name = name->next) {
        member.is_signed |= name->number < 0;
      }
    }
    if (member.is_signed && member.kind == Kind::kUnsigned) member.kind = Kind::kSigned;
    if (member.is_bit) {
      if (extra.bits == 0) return refuse(type, &member, "it has no width");
      if (member.dimensions != 0) return refuse(type, &member, "bits have no count");
      member.at += member.bit / 8;
      member.bit %= 8;
      extra.bit = static_cast<uint8_t>(member.bit);
      member.size = (extra.bit + extra.bits + 7u) / 8;
      auto* mask = static_cast<uint8_t*>(arena_.take(member.size));
      for (unsigned n = extra.bit; n < extra.bit + extra.bits; ++n) {
        mask[n / 8] |= static_cast<uint8_t>(extra.is_big ? 0x80 >> n % 8 : 1 << n % 8);
      }
      extra.mask = mask;
    } else {
      extra.bits = 0;
    }
    const uint32_t due = member.kind == Kind::kMac ? 6 : member.kind == Kind::kAddress ? 4 : 0;
    if (member.size == 0) member.size = due;
    if (member.size == 0 || (due != 0 && member.size != due) ||
        (is_number && !member.is_bit && member.size > 8) ||
        (member.kind == Kind::kMacText && member.size < kMacTextSize)) {
      return refuse(type, &member, "its kind has no such size");
    }
    extra.is_list = is_of_numbers(member) && member.dimensions > 0;
    extra.is_counted = member.used != nullptr;
    return member.range[0] == nullptr || take_range(type, member);
  }

  bool take_range(const Type& type, Member& member) {
    Extra& extra = member.extra;
    const bool is_signed = member.kind == Kind::kSigned;
    char* end;
    extra.has_range = read_number(member.range[0], &end, is_signed, 64, &extra.least) &&
                      read_number(member.range[1], &end, is_signed, 64, &extra.most);
    if (!extra.has_range) return refuse(type, &member, "its range does not fit its sign");
    const bool is_empty =
        is_signed ? extra.least > extra.most
                  : static_cast<uint64_t>(extra.least) > static_cast<uint64_t>(extra.most);
    return !is_empty || refuse(type, &member, "its range ends before it begins");
  }

  Arena& arena_;
  Model& model_;
  Text& fault_;
};

/* Makes the nodes of a type in the place of a field. */
class Flattener {
 public:
  Flattener(Arena& arena, Model& model, Attachment& to, const Attachment* others, Text* fault,
            uint32_t* count)
      : arena_(arena), model_(model), to_(to), others_(others), fault_(*fault), count_(*count) {}

  bool run() {
    if (!expand(*to_.type, 0, 0, 0, 0)) return false;
    to_.numbered = static_cast<const Guard**>(arena_.take((to_.guard_count + 1u) * sizeof(void*)));
    uint16_t number = 0;
    for (Guard* guard = to_.guards; guard != nullptr; guard = guard->next) {
      if (!find_operand(*guard)) return false;
      to_.numbered[++number] = guard;
    }
    return true;
  }

 private:
  bool refuse(const char* name, const char* what) {
    fault_.print("%s: %s: %s", model_.path, name, what);
    return false;
  }

  /* 0 when there are too many. */
  uint16_t add_guard(const char* name, const Alternative* values, uint32_t count, uint16_t outer,
                     uint16_t outer_index, const char* type) {
    if (to_.guard_count == UINT16_MAX) return 0;
    auto* guard = arena_.make<Guard>();
    guard->scope = arena_.keep(prefix_.c_str());
    guard->name = name;
    guard->values = values;
    guard->count = count;
    guard->outer = outer;
    guard->outer_index = outer_index;
    guard->type = type;
    *to_.guards_end = guard;
    to_.guards_end = &guard->next;
    return ++to_.guard_count;
  }

  /* Members of the type hold when all of its conditions do. */
  void add_guards(const Condition* conditions, const char* type, uint16_t* guard, uint16_t* index) {
    for (; conditions != nullptr; conditions = conditions->next) {
      *guard = add_guard(conditions->name, conditions->values, 1, *guard, *index, type);
      *index = 0;
    }
  }

  // NOLINTBEGIN(misc-no-recursion): types in types, at most kDeepest
  bool expand(const Type& type, uint32_t at, uint16_t guard, uint16_t index, int depth) {
    if (depth > kDeepest) return refuse(type.name, "its types are nested too deeply");
    if (++count_ > kMostNodes) return refuse(type.name, kTooMany);
    add_guards(type.conditions, type.name, &guard, &index);
    if (depth == 0) to_.root = guard;
    const size_t length = prefix_.size();
    for (const Member* member = type.members; member != nullptr; member = member->next) {
      uint16_t own = guard, own_index = index;
      add_guards(member->conditions, member->name, &own, &own_index);
      if (!expand(*member, at + member->at, own, own_index, depth)) return false;
      prefix_.cut(length);
    }
    return true;
  }

  bool expand(const Member& member, uint32_t at, uint16_t guard, uint16_t index, int depth) {
    const uint32_t named = member.dimensions - (is_of_numbers(member) && member.dimensions > 0);
    uint32_t size = member.size, elements = 1;
    for (uint32_t n = 0; n < member.dimensions; ++n) {
      (n < named ? elements : size) *= member.counts[n];
      if (elements > kMostNodes) return refuse(member.name, kTooMany);
    }
    uint16_t used = 0;
    if (member.used != nullptr && member.dimensions > 0) {
      used = add_guard(member.used, nullptr, member.counts[0], guard, index, nullptr);
    }
    if (to_.guard_count == UINT16_MAX) return refuse(member.name, "too many conditions");
    const bool is_counted = used != 0 && named == 0;
    prefix_.add(member.name);
    const size_t length = prefix_.size();
    for (uint32_t n = 0; n < elements; ++n, at += size) {
      uint32_t first = n, below = elements;
      uint32_t rest = n;
      for (uint32_t dimension = 0; dimension < named; ++dimension) {
        below /= member.counts[dimension];
        prefix_.print("[%u]", rest / below);
        if (dimension == 0) first = rest / below;
        rest %= below;
      }
      const uint16_t own = used != 0 ? used : guard;
      const auto own_index = static_cast<uint16_t>(used != 0 ? first : index);
      if (member.type == nullptr) {
        if (!add_node(member, at, size, own, is_counted ? 0 : own_index, is_counted)) return false;
      } else {
        prefix_.add('.');
        if (!expand(*find_named(model_.types, member.type), at, own, own_index, depth + 1))
          return false;
      }
      prefix_.cut(length);
    }
    return true;
  }
  // NOLINTEND(misc-no-recursion)

  bool is_taken(const char* name) const {
    if (strcmp(name, "id") == 0 || is_spare_name(name)) return true;
    for (const Field& field : *to_.table) {
      const size_t length = strlen(field.name);
      if (strncmp(name, field.name, length) == 0 && strchr(".[", name[length]) != nullptr) {
        return true;
      }
    }
    const uint32_t hash = hash_of(name);
    for (const Attachment* other = others_; other != nullptr; other = other->next) {
      if (other->table == to_.table && (other->id == to_.id || other->id == 0 || to_.id == 0) &&
          find_node(*other, name, hash) != nullptr) {
        return true;
      }
    }
    return to_.seen.add(hash) && find_node(to_, name, hash) != nullptr;
  }

  static Node* find_node(const Attachment& in, const char* name, uint32_t hash) {
    Node* node = in.nodes;
    while (node != nullptr && (node->hash != hash || strcmp(node->own, name) != 0)) {
      node = node->next;
    }
    return node;
  }

  bool add_node(const Member& member, uint32_t at, uint32_t size, uint16_t guard, uint16_t index,
                bool is_counted) {
    if (++count_ > kMostNodes) return refuse(member.name, kTooMany);
    const char* name = prefix_.c_str();
    auto* node = arena_.make<Node>();
    Text whole;
    if (is_taken(name)) whole.print("%s.", to_.field->name);
    const size_t ahead = whole.size();
    whole.add(name);
    node->field.name = arena_.keep(whole.c_str());
    node->own = node->field.name + ahead;
    node->hash = hash_of(name);
    node->field.member = node->field.name;
    node->field.record_at = static_cast<uint16_t>(to_.field->record_at + at);
    node->field.item_at = kNoItem;
    node->field.size = static_cast<uint16_t>(size);
    node->field.kind = member.kind;
    node->field.width = static_cast<uint8_t>(is_of_numbers(member) ? member.size : size);
    node->field.is_secret = member.extra.is_secret;
    node->field.extra = &member.extra;
    node->guard = guard;
    node->index = index;
    node->is_counted = is_counted;
    *to_.end = node;
    to_.end = &node->next;
    return true;
  }

  /* The names of the same type come first, then those of the types around it. */
  bool find_operand(Guard& guard) {
    Text scope;
    scope.add(guard.scope);
    while (true) {
      Text name;
      name.add(scope.c_str());
      name.add(guard.name);
      if (Node* node = find_node(to_, name.c_str(), hash_of(name.c_str())); node != nullptr) {
        const bool is_number = node->field.kind >= Kind::kSigned;
        if (list_size(node->field) != 0 || (guard.values == nullptr && !is_number)) {
          return refuse(guard.name, "a condition needs a member with one value, a count a number");
        }
        guard.operand = node;
        node->is_condition = true;
        return true;
      }
      if (scope.size() == 0) return refuse(guard.name, "a condition names it, and there is none");
      scope.cut(scope.size() - 1);
      const char* dot = strrchr(scope.c_str(), '.');
      scope.cut(dot != nullptr ? static_cast<size_t>(dot + 1 - scope.c_str()) : 0);
    }
  }

  Arena& arena_;
  Model& model_;
  Attachment& to_;
  const Attachment* others_;
  Text& fault_;
  uint32_t& count_;
  Text prefix_;
};

/* AREA.MEMBER[/ID][.FIELD]; the field may be left out where the member is one. */
bool find_place(const char* path, Attachment* to) {
  const size_t area = strcspn(path, ".");
  if (path[area] == '\0') return false;
  const char* member = path + area + 1;
  const size_t length = strcspn(member, "./");
  for (const Table& table : kTables) {
    const char* name = kAreas[table.area].name;
    if (table.member == nullptr || strlen(name) != area || strncmp(name, path, area) != 0 ||
        strlen(table.member) != length || strncmp(table.member, member, length) != 0) {
      continue;
    }
    to->table = &table;
    const char* rest = member + length;
    if (*rest == '/') {
      char* end;
      int64_t id;
      if (!read_number(rest + 1, &end, false, 16, &id) || id == 0 || id > table.capacity) {
        return false;
      }
      to->id = static_cast<uint32_t>(id);
      rest = end;
    }
    if (*rest == '\0') {
      to->field = table.fields;
      return table.field_count == 1;
    }
    for (const Field& field : table) {
      if (*rest == '.' && field.kind == Kind::kBytes &&
          (strcmp(field.member, rest + 1) == 0 || strcmp(field.name, rest + 1) == 0)) {
        to->field = &field;
        return true;
      }
    }
  }
  return false;
}

}  // namespace

bool is_spare_name(const char* name) {
  constexpr size_t kAhead = sizeof kSpare - 1;
  if (strncmp(name, kSpare, kAhead) != 0) return false;
  name += kAhead;
  return *name != '\0' && name[strspn(name, "0123456789")] == '\0';
}

bool Overlays::attach(Model* model, const Place& place, Attachment* attachment, Text* fault) {
  attachment->model = model;
  attachment->path = place.path;
  attachment->end = &attachment->nodes;
  attachment->guards_end = &attachment->guards;
  const auto refuse = [&](const char* what) {
    fault->print("%s: %s: %s", model->path, place.path, what);
    return false;
  };
  if (!find_place(place.path, attachment)) return refuse("there is no such field of opaque bytes");
  Type* type = find_named(model->types, place.type);
  if (type == nullptr) return refuse("its type is missing");
  if (type->size > attachment->field->size) return refuse("the type is larger than the field");
  attachment->type = type;
  for (const Attachment* other = attachments_; other != nullptr; other = other->next) {
    if (other->field != attachment->field || other->table != attachment->table ||
        (other->id != attachment->id && other->id != 0 && attachment->id != 0)) {
      continue;
    }
    fault->print("%s: %s and %s of %s name the same bytes", model->path, place.path, other->path,
                 other->model->path);
    return false;
  }
  uint32_t count = node_count_;
  const bool good = Flattener(arena_, *model, *attachment, attachments_, fault, &count).run();
  attachment->node_count = count - node_count_;
  return good;
}

void Overlays::add(Attachment* attachment) {
  attachment->next = attachments_;
  attachments_ = attachment;
  node_count_ += attachment->node_count;
}

/* Moves those of a model into another list. */
void Overlays::detach(const Model* model, Attachment** to) {
  for (Attachment** at = &attachments_; *at != nullptr;) {
    Attachment* one = *at;
    if (one->model != model) {
      at = &one->next;
      continue;
    }
    *at = one->next;
    one->next = *to;
    *to = one;
    node_count_ -= one->node_count;
  }
}

bool Overlays::attach(Model* model, Text* fault) {
  if (!Checker(arena_, *model, fault).check()) return false;
  for (const Place* place = model->places; place != nullptr; place = place->next) {
    auto* attachment = arena_.make<Attachment>();
    if (!attach(model, *place, attachment, fault)) {
      Attachment* unused = nullptr;
      detach(model, &unused);
      return false;
    }
    add(attachment);
  }
  return true;
}

}  // namespace store
