/* Reads overlays, and merges a file with the one that it completes. */
#include "store/overlay.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "store/files.h"
#include "store/json.h"
#include "store/overlay_model.h"
#include "store/value.h"

namespace store {

Overlays* g_overlays;

/* ---- memory ---- */

Arena::~Arena() {
  while (first_ != nullptr) {
    Block* next = first_->next;
    free(first_);
    first_ = next;
  }
}

void* Arena::take(size_t size) {
  constexpr size_t kBlock = 4096;
  size = (size + 7) & ~size_t{7};
  if (size > left_) {
    const size_t room = size > kBlock ? size : kBlock;
    Buffer buffer(sizeof(Block) + 8 + room);
    auto* block = reinterpret_cast<Block*>(buffer.release());
    block->next = first_;
    first_ = block;
    at_ = reinterpret_cast<uint8_t*>(block) + 8;
    left_ = room;
  }
  void* taken = at_;
  at_ += size;
  left_ -= size;
  return taken;
}

const char* Arena::keep(const char* text) {
  const size_t size = strlen(text) + 1;
  return static_cast<char*>(memcpy(take(size), text, size));
}

/* ---- files ---- */

namespace {

constexpr off_t kMostBytes = 256 * 1024;
constexpr int kDeepest = 16;
constexpr uint32_t kMostNumber = UINT16_MAX;
constexpr uint32_t kMostName = 128;

bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/* As a compiler takes it, so it needs no quotes and has no dots. */
bool is_name(const char* name) {
  const size_t length = strlen(name);
  if (length == 0 || length > kMostName || (name[0] >= '0' && name[0] <= '9')) return false;
  for (const char* at = name; *at != '\0'; ++at) {
    if (!is_letter(*at)) return false;
  }
  return true;
}

template <class Thing>
void append(Thing** first, Thing* last) {
  while (*first != nullptr) first = &(*first)->next;
  *first = last;
}

}  // namespace

/* Reads a file into a model. */
class OverlayReader {
 public:
  OverlayReader(Arena& arena, Model* model, Text* fault)
      : arena_(arena), model_(*model), fault_(*fault) {}

  // NOLINTBEGIN(misc-no-recursion): files that complete each other, at most kDeepest
  bool read(const char* path, int depth = 0) {
    const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    Text text;
    if (!file || fstat(file.number, &status) != 0) return refuse("%s: %s", path, strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_size > kMostBytes) {
      return refuse("%s: no file of at most %d KB", path, static_cast<int>(kMostBytes >> 10));
    }
    if (!read_file(file.number, &text)) return refuse("%s: %s", path, strerror(errno));
    for (const FileId* id = model_.files; id != nullptr; id = id->next) {
      if (id->device == status.st_dev && id->inode == status.st_ino) {
        return refuse("%s: it completes itself", path);
      }
    }
    auto* id = arena_.make<FileId>();
    id->device = status.st_dev;
    id->inode = status.st_ino;
    append(&model_.files, id);
    JsonReader json(text.c_str(), text.size());
    JsonReader* outer = json_;
    const char* outer_path = path_;
    json_ = &json;
    path_ = path;
    const bool good = read_file_members(depth) && (json.end() || refuse_json());
    json_ = outer;
    path_ = outer_path;
    return good;
  }

 private:
  bool refuse(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (fault_.size() > 0) return false;
    va_list values;
    va_start(values, format);
    char text[512];
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    if (json_ != nullptr) fault_.print("%s:%u: ", path_, json_->line());
    fault_.add(text);
    return false;
  }
  bool refuse_json() { return refuse("%s", json_->fault()); }

  /* Opens an object, and reads its members by a function that takes the name. */
  template <class Read>
  bool each_member(Read read) {
    if (!json_->open('{')) return refuse_json();
    Text name;
    for (bool first = true; json_->next('}', &first);) {
      if (!json_->name(&name)) return refuse_json();
      if (!read(name.c_str())) return false;
    }
    return !json_->failed() || refuse_json();
  }

  bool value(Text* to, JsonKind* kind) { return json_->value(to, kind) || refuse_json(); }

  bool text(const char** to) {
    *to = "";
    Text value;
    JsonKind kind;
    if (!this->value(&value, &kind)) return false;
    if (kind != JsonKind::kText || strlen(value.c_str()) != value.size()) {
      return refuse("expected a text");
    }
    *to = arena_.keep(value.c_str());
    return true;
  }

  bool number(uint32_t most, uint32_t* to) {
    *to = 0;
    Text value;
    JsonKind kind;
    char* end;
    int64_t number;
    if (!this->value(&value, &kind)) return false;
    if (kind != JsonKind::kNumber || !read_number(value.c_str(), &end, false, 32, &number) ||
        number > most) {
      return refuse("expected a number up to %u", most);
    }
    *to = static_cast<uint32_t>(number);
    return true;
  }

  bool flag(bool* to) {
    *to = json_->word("true");
    return *to || json_->word("false") || refuse("expected true or false");
  }

  bool order(bool* is_big) {
    const char* order = "";
    if (!text(&order)) return false;
    *is_big = strcmp(order, "big") == 0;
    return *is_big || strcmp(order, "little") == 0 || refuse("an order is little or big");
  }

  /* ---- the file ---- */

  bool read_file_members(int depth) {
    ++reading_;
    bool is_overlay = false, has_types = false;
    const auto read = [&](const char* name) {
      if (strcmp(name, "overlay") == 0) {
        uint32_t version = 0;
        is_overlay = number(1, &version) && version == 1;
        return is_overlay || refuse("an overlay of another kind");
      }
      if (strcmp(name, "order") == 0) {
        bool is_big;
        return order(&is_big) && (!is_big || refuse("it is of a big-endian processor"));
      }
      if (strcmp(name, "completes") == 0) {
        const char* completed = "";
        if (has_types) return refuse("completes has to stand before types, enums and at");
        return text(&completed) && read_completed(completed, depth);
      }
      has_types = true;
      if (strcmp(name, "enums") == 0) {
        return each_member([&](const char* own) { return read_enum(own); });
      }
      if (strcmp(name, "types") == 0) {
        return each_member([&](const char* own) { return read_type(own); });
      }
      if (strcmp(name, "at") == 0) {
        return each_member([&](const char* own) { return read_place(own); });
      }
      return refuse("an overlay has no '%s'", name);
    };
    if (!each_member(read)) return false;
    return is_overlay || refuse("no overlay: \"overlay\": 1 is missing");
  }

  /* The path is relative to this file. */
  bool read_completed(const char* path, int depth) {
    if (depth == kDeepest) return refuse("more than %d files complete each other", kDeepest);
    Text whole;
    const char* slash = strrchr(path_, '/');
    if (path[0] != '/' && slash != nullptr) {
      whole.add(path_, static_cast<size_t>(slash + 1 - path_));
    }
    whole.add(path);
    const char* kept = arena_.keep(whole.c_str());
    const bool good = read(kept, depth + 1);
    ++reading_; /* this file goes on, with a number that no other has */
    return good;
  }
  // NOLINTEND(misc-no-recursion)

  bool read_place(const char* path) {
    const char* type = "";
    if (!text(&type)) return false;
    for (Place* place = model_.places; place != nullptr; place = place->next) {
      if (strcmp(place->path, path) == 0) {
        place->type = type;
        return true;
      }
    }
    auto* place = arena_.make<Place>();
    place->path = arena_.keep(path);
    place->type = type;
    append(&model_.places, place);
    return true;
  }

  bool read_enum(const char* name) {
    Enum* made = find_named(model_.enums, name);
    if (made == nullptr) {
      made = arena_.make<Enum>();
      made->name = arena_.keep(name);
      append(&model_.enums, made);
    }
    EnumName* names = nullptr;
    EnumName** end = &names;
    const bool good = each_member([&](const char* own) {
      Text value;
      JsonKind kind;
      char* rest;
      if (!is_name(own)) return refuse("'%s' is no name", own);
      if (!this->value(&value, &kind)) return false;
      auto* entry = arena_.make<EnumName>();
      const bool is_signed = value.c_str()[0] == '-';
      if (kind != JsonKind::kNumber ||
          !read_number(value.c_str(), &rest, is_signed, 64, &entry->number)) {
        return refuse("expected a number");
      }
      for (const EnumName* other = names; other != nullptr; other = other->next) {
        if (strcmp(other->name, own) == 0) return refuse("'%s' appears twice", own);
      }
      entry->name = arena_.keep(own);
      *end = entry;
      end = const_cast<EnumName**>(&entry->next);
      return true;
    });
    made->names = names;
    return good;
  }

  bool read_type(const char* name) {
    Type* type = find_named(model_.types, name);
    if (type == nullptr) {
      type = arena_.make<Type>();
      type->name = arena_.keep(name);
      append(&model_.types, type);
    }
    return each_member([&](const char* own) {
      if (strcmp(own, "size") == 0) return type->has_size = number(kMostNumber, &type->size);
      if (strcmp(own, "union") == 0) return flag(&type->is_union);
      if (strcmp(own, "if") == 0) return conditions(&type->conditions);
      if (strcmp(own, "members") == 0) return read_members(type);
      return refuse("a type has no '%s'", own);
    });
  }

  bool read_members(Type* type) {
    Member** end = &type->members;
    while (*end != nullptr) end = &(*end)->next;
    return each_member([&](const char* name) {
      if (!is_name(name)) return refuse("'%s' is no name", name);
      const uint32_t hash = hash_of(name);
      Member* member = type->seen.add(hash) ? type->members : nullptr;
      while (member != nullptr && (member->hash != hash || strcmp(member->name, name) != 0)) {
        member = member->next;
      }
      if (member == nullptr) {
        member = arena_.make<Member>();
        member->name = arena_.keep(name);
        member->hash = hash;
        *end = member;
        end = &member->next;
      } else if (member->reading == reading_) {
        return refuse("%s.%s appears twice", type->name, name);
      }
      member->reading = reading_;
      if (!each_member([&](const char* own) { return read_attribute(own, member); })) return false;
      if (member->has_at) return true;
      return refuse("%s.%s has no place, and no completed file has it", type->name, name);
    });
  }

  bool read_attribute(const char* own, Member* member) {
    enum {
      kAt,
      kKind,
      kSize,
      kType,
      kCount,
      kUsed,
      kNames,
      kBit,
      kWidth,
      kSigned,
      kOrder,
      kUnit,
      kRange,
      kPattern,
      kIsSecret,
      kDefault,
      kIf
    };
    static constexpr const char* kNamesOf[] = {
        "at",     "kind",  "size", "type",  "count",   "used",   "names",   "bit", "width",
        "signed", "order", "unit", "range", "pattern", "secret", "default", "if"};
    int which = 0;
    for (const char* known : kNamesOf) {
      if (strcmp(known, own) == 0) break;
      ++which;
    }
    Extra& extra = member->extra;
    uint32_t small = 0;
    switch (which) {
      case kAt: return member->has_at = number(kMostNumber, &member->at);
      case kKind: member->type = nullptr; return kind(member);
      case kSize: return number(kMostNumber, &member->size);
      case kType: member->has_kind = false; return text(&member->type);
      case kCount: return counts(member);
      case kUsed: return text(&member->used);
      case kNames: return text(&member->names);
      case kBit: return number(8 * kMostNumber, &member->bit);
      case kWidth:
        if (!number(64, &small)) return false;
        extra.bits = static_cast<uint8_t>(small);
        return small > 0 || refuse("expected a number from 1 to 64");
      case kSigned: return flag(&member->is_signed);
      case kOrder: return order(&extra.is_big);
      case kUnit: return text(&extra.unit);
      case kRange: return range(member);
      case kPattern: return text(&extra.pattern) && check_pattern(extra.pattern);
      case kIsSecret: return flag(&extra.is_secret);
      case kDefault: {
        Text value;
        JsonKind kind;
        if (!this->value(&value, &kind)) return false;
        extra.fallback = arena_.keep(value.c_str());
        return true;
      }
      case kIf: return conditions(&member->conditions);
      default: return refuse("a member has no '%s'", own);
    }
  }

  bool kind(Member* member) {
    const char* name = "";
    if (!text(&name)) return false;
    member->has_kind = true;
    member->is_enum = strcmp(name, kEnumKind) == 0;
    member->is_bit = strcmp(name, kBitKind) == 0;
    member->kind = Kind::kUnsigned;
    if (member->is_enum || member->is_bit) return true;
    int kind = 0;
    while (kind <= static_cast<int>(Kind::kUnsigned) &&
           strcmp(kind_name(static_cast<Kind>(kind)), name) != 0) {
      ++kind;
    }
    member->kind = static_cast<Kind>(kind);
    return member->kind <= Kind::kUnsigned || refuse("'%s' is no kind", name);
  }

  bool counts(Member* member) {
    Text value;
    JsonKind kind;
    if (!this->value(&value, &kind)) return false;
    member->dimensions = 0;
    for (const char* at = value.c_str();; ++at) {
      char* end;
      int64_t count;
      if (kind == JsonKind::kText || member->dimensions == kMostDimensions ||
          !read_number(at, &end, false, 32, &count) || count == 0 || count > kMostNumber) {
        return refuse("expected a number of elements up to %u, or up to %u of them", kMostNumber,
                      kMostDimensions);
      }
      member->counts[member->dimensions++] = static_cast<uint32_t>(count);
      if (*end == '\0') return true;
      at = end;
    }
  }

  bool range(Member* member) {
    Text value;
    JsonKind kind;
    if (!this->value(&value, &kind)) return false;
    char* comma = const_cast<char*>(strchr(value.c_str(), ','));
    if (kind != JsonKind::kNumbers || comma == nullptr || strchr(comma + 1, ',') != nullptr) {
      return refuse("a range is two numbers");
    }
    *comma = '\0';
    member->range[0] = arena_.keep(value.c_str());
    member->range[1] = arena_.keep(comma + 1);
    return true;
  }

  /* regcomp calls itself for each parenthesis, and copies what a count repeats. */
  bool check_pattern(const char* pattern) {
    constexpr uint64_t kLongest = 255, kMostCopied = 1 << 18;
    uint64_t copied = strlen(pattern);
    bool good = copied <= kLongest;
    for (const char* at = strchr(pattern, '{'); good && at != nullptr; at = strchr(at + 1, '{')) {
      char* end;
      int64_t least = 1, most = 1;
      if (read_number(at + 1, &end, false, 16, &least) || *end == ',') {
        if (*end != ',' || !read_number(end + 1, &end, false, 16, &most)) most = least;
      }
      copied *= static_cast<uint64_t>(most > 0 ? most : 1);
      good = copied <= kMostCopied;
    }
    return good || refuse("the pattern is too large");
  }

  bool conditions(const Condition** to) {
    *to = nullptr;
    return each_member([&](const char* name) {
      auto* condition = arena_.make<Condition>();
      condition->name = arena_.keep(name);
      condition->next = *to;
      *to = condition;
      if (!json_->is_next('[')) return alternative(condition);
      json_->open('[');
      for (bool first = true; json_->next(']', &first);) {
        if (!alternative(condition)) return false;
      }
      if (json_->failed()) return refuse_json();
      return condition->values != nullptr || refuse("a condition needs a value");
    });
  }

  bool alternative(Condition* condition) {
    Text value;
    JsonKind kind;
    if (!this->value(&value, &kind)) return false;
    if (kind == JsonKind::kNumbers) return refuse("expected a text or a number");
    auto* made = arena_.make<Alternative>();
    made->text = arena_.keep(value.c_str());
    made->next = condition->values;
    condition->values = made;
    return true;
  }

  Arena& arena_;
  Model& model_;
  Text& fault_;
  JsonReader* json_ = nullptr;
  const char* path_ = "";
  unsigned reading_ = 0;
};

/* ---- loading ---- */

namespace {

bool has_file(const Model& model, const FileId& file) {
  for (const FileId* id = model.files; id != nullptr; id = id->next) {
    if (id->device == file.device && id->inode == file.inode) return true;
  }
  return false;
}

}  // namespace

int Overlays::load(const char* path, bool is_of_folder) {
  Text fault;
  auto* model = arena_.make<Model>();
  model->path = arena_.keep(path);
  bool good = OverlayReader(arena_, model, &fault).read(model->path);
  for (const Model* other = models_; good && other != nullptr; other = other->next) {
    if (has_file(*other, *model->files)) return kOk;
  }
  if (good) {
    Attachment* replaced = nullptr; /* of the files that it completes */
    for (const Model* other = models_; other != nullptr; other = other->next) {
      if (has_file(*model, *other->files)) detach(other, &replaced);
    }
    good = attach(model, &fault);
    while (!good && replaced != nullptr) {
      Attachment* next = replaced->next;
      add(replaced);
      replaced = next;
    }
  }
  if (!good && is_of_folder) {
    static Text said; /* lines of a batch may read the folder again */
    fault.add("; the file is left out\n");
    if (strstr(said.c_str(), fault.c_str()) != nullptr) return kRefused;
    said.add(fault.c_str());
    fault.trim('\n');
  }
  if (!good) return fail(kRefused, "%s", fault.c_str());
  model->next = models_;
  models_ = model;
  return kOk;
}

void Overlays::load_folder(const char* path) {
  DIR* folder = opendir(path);
  if (folder == nullptr) return;
  struct Name {
    Name* next;
    const char* name;
  };
  Name* first = nullptr;
  while (const dirent* entry = readdir(folder)) {
    const size_t length = strlen(entry->d_name);
    if (length < 5 || entry->d_name[0] == '.' || strcmp(entry->d_name + length - 5, ".json") != 0) {
      continue;
    }
    Name** at = &first;
    while (*at != nullptr && strcmp((*at)->name, entry->d_name) < 0) at = &(*at)->next;
    auto* made = arena_.make<Name>();
    made->name = arena_.keep(entry->d_name);
    made->next = *at;
    *at = made;
  }
  closedir(folder);
  for (; first != nullptr; first = first->next) {
    Text whole;
    whole.print("%s/%s", path, first->name);
    load(whole.c_str(), true);
  }
}

}  // namespace store
