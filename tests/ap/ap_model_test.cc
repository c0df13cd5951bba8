/* Random operations on the access-point tables, compared with the naive model: results,
 * standard output and the journal of calls after each, whole blocks after every tenth. --seed=N
 * repeats a run, SC_TEST_STEPS=N makes it longer (or shorter). */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>

#include <sysconfig/ap.h>

#include "model/ap_model.h"
#include "support/areas.h"
#include "support/image.h"
#include "support/journal.h"
#include "support/output.h"
#include "support/random.h"
#include "support/world.h"

namespace {

using namespace sc_test;

uint32_t steps() {
  const char* given = getenv("SC_TEST_STEPS");
  return given == nullptr ? 200 : static_cast<uint32_t>(strtoul(given, nullptr, 10));
}

using Mac = std::array<uint8_t, 6>;

class ApModels : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    /* Noise in one record of eight only: whole blocks of it would take their time to make. */
    for (const char* name : {"Ap_Info", "ApUser_Info", "AP_Template_Info"}) {
      const IdTableRow& row = id_table_row(name);
      Image image = golden_area(row.area).emptied();
      golden_area(row.area).number(image);
      model.areas[row.area] = Bytes(image.data(), image.data() + image.size());
      write_file(lock_file(row.area), "\n");
      const uint32_t used_of_ten = random.below(3) * 5;
      for (uint32_t p = 0; p < row.capacity; ++p) {
        uint8_t* record = model.record(row, p);
        const bool noisy = random.one_in(8);
        for (uint32_t i = 4; noisy && i < row.stride; ++i) {
          record[i] = static_cast<uint8_t>(random.next());
        }
        memcpy(record + row.mac_at, mac().data(), 6);
        store(record + row.id_at, 4, random.below(10) < used_of_ten ? p + 1 : 0);
      }
    }
    blocks = model.areas;
  }

  Mac mac() {
    static const Mac kMacs[] = {{},
                                {2, 0, 0, 0, 0, 1},
                                {2, 0, 0, 0, 0, 2},
                                {0xFF, 1, 0, 0, 0, 0},
                                {'a', 'b', 'c', 'd', 'e', 'f'},
                                {'A', 'b', 'c', 'd', 'e', 'f'}};
    if (random.one_in(2)) return kMacs[random.below(std::size(kMacs))];
    return {2, 1, 0, 0, 0, static_cast<uint8_t>(random.next())};
  }
  uint32_t id(const IdTableRow& row) {
    static const uint32_t kIds[] = {0, 1, 0x80000000, 0xFFFFFFFF, 0x101};
    if (random.one_in(4)) return kIds[random.below(std::size(kIds))];
    return random.below(row.capacity + 2);
  }

  template <class Block>
  Block* block(const char* area) {
    return reinterpret_cast<Block*>(blocks.at(area).data());
  }

  void step(const std::function<int32_t()>& library, const std::function<int32_t()>& expected) {
    std::vector<std::string> journal;
    int32_t result = 0;
    bool untouched = true;
    Bytes released;
    const Output printed = capture([&] {
      Journal kept;
      kept.before("lock", [&] { untouched = records(blocks) == records(model.areas); });
      kept.after("unlock", [&] { released = records(blocks); });
      result = library();
      journal = kept.lines();
    });
    ASSERT_TRUE(untouched) << "written before the first lock";
    if (std::count_if(journal.begin(), journal.end(), is_unlock) == 1) {
      ASSERT_TRUE(released == records(blocks)) << "written after the only lock was released";
    }
    model.forget();
    ASSERT_EQ(result, expected());
    ASSERT_EQ(printed, (Output{model.printed, ""}));
    ASSERT_EQ(journal, model.journal);
  }

  static bool is_unlock(const std::string& line) { return line.rfind("unlock", 0) == 0; }

  /* The records of the tables whose writers take locks. */
  static Bytes records(const std::map<std::string, Bytes>& areas) {
    Bytes all;
    for (const char* name : {"Ap_Info", "AP_Template_Info"}) {
      const IdTableRow& row = id_table_row(name);
      const uint8_t* first = areas.at(row.area).data() + row.base;
      all.insert(all.end(), first, first + row.capacity * row.stride);
    }
    return all;
  }

  void compare_blocks() {
    for (const auto& [area, bytes] : model.areas) {
      if (bytes == blocks.at(area)) continue;
      ASSERT_TRUE(Image(bytes.data(), bytes.size()).matches(blocks.at(area).data())) << area;
    }
  }

  void random_step() {
    const IdTableRow& ap = id_table_row("Ap_Info");
    const IdTableRow& user = id_table_row("ApUser_Info");
    const IdTableRow& group = id_table_row("AP_Template_Info");
    auto* const aps = block<ManageApListBlock>("ManageApList");
    auto* const users = block<ApUserListBlock>("ApUserList");
    auto* const templates = block<ApTemplateListBlock>("ApTemplateList");
    const Mac one = mac();
    const uint8_t* const at = one.data();
    const uint32_t choice = random.below(26);
    SCOPED_TRACE("choice " + std::to_string(choice));
    switch (choice) {
      case 0: {
        const uint32_t asked = id(ap);
        return step([&] { return SC_Get_Ap_Info_By_Id(aps, asked); },
                    [&] { return model.by_id(ap, asked); });
      }
      case 1: {
        const uint32_t asked = id(user);
        return step([&] { return SC_Get_ApUser_Info_By_Id(users, asked); },
                    [&] { return model.by_id(user, asked); });
      }
      case 2: {
        const uint32_t asked = id(group);
        return step([&] { return SC_Get_AP_Template_Info_By_Id(templates, asked); },
                    [&] { return model.by_id(group, asked); });
      }
      case 3:
        return step([&] { return SC_Get_Ap_Info_By_Mac(aps, at); },
                    [&] { return model.by_mac(ap, at); });
      case 4:
        return step([&] { return SC_Get_ApUser_Info_By_Mac(users, at); },
                    [&] { return model.by_mac(user, at); });
      case 5:
      case 6: {
        ApLimitsRecord limits;
        fill(&limits, sizeof limits, 1);
        static const int16_t kLimits[] = {0, -1, 1, 150, 300, 301, 32767, -32768};
        limits.max_ap_count = kLimits[random.below(std::size(kLimits))];
        return step([&] { return SC_Get_Ap_Info_Blank(aps, &limits); },
                    [&] { return model.claim_ap(reinterpret_cast<uint8_t*>(&limits)); });
      }
      case 7:
        return step([&] { return SC_Get_ApUser_Info_Blank(users); },
                    [&] { return model.claim(user); });
      case 8:
        return step([&] { return SC_Get_AP_Template_Info_Blank(templates); },
                    [&] { return model.claim(group); });
      case 9:
        return step([&] { return SC_Get_Ap_Info_Count(aps); }, [&] { return model.count(ap); });
      case 10:
        return step([&] { return SC_Get_ApUser_Info_Count(users); },
                    [&] { return model.count(user); });
      case 11:
        return step([&] { return SC_Get_AP_Template_Info_Count(templates); },
                    [&] { return model.count(group); });
      case 12:
        return step([&] { return SC_Get_Ap_Info_Count_Online(aps); },
                    [&] { return model.online(); });
      case 13:
        return step([&] { return SC_Get_Ap_Info_Count_Offline(aps); },
                    [&] { return model.offline(); });
      case 14: {
        std::vector<uint32_t> positions(300, 7), expected;
        step([&] { return SC_Get_Ap_Info_Count_And_Id(positions.data(), aps); },
             [&] {
               expected = model.used_positions();
               return static_cast<int32_t>(expected.size());
             });
        expected.resize(300, 0xFFFFFFFF);
        ASSERT_EQ(positions, expected);
        return;
      }
      case 15:
        return step([&] { return SC_Del_Ap_Info_by_Mac(aps, at); },
                    [&] { return model.del_by_mac(ap, at); });
      case 16:
        return step([&] { return SC_Del_ApUser_Info_by_Mac(users, at); },
                    [&] { return model.del_by_mac(user, at); });
      case 17: {
        char info[50];
        fill(info, sizeof info, random.next());
        const int number = static_cast<int>(random.next());
        return step(
            [&] { return SC_Ap_Add_GroupInfo_by_Mac(aps, info, number, at); },
            [&] { return model.add_group_info(reinterpret_cast<uint8_t*>(info), number, at); });
      }
      case 18:
        return step([&] { return SC_Ap_Clean_GroupInfo_by_Mac(aps, at); },
                    [&] { return model.clean_group_info(at); });
      case 19:
        if (!random.one_in(6)) return;
        return step([&] { return SC_Set_Ap_Info_Id2Zero(aps); },
                    [&] { return model.clear_used(); });
      case 20:
        return step(
            [&] {
              SC_CleanWtpFragBuffer(aps);
              return 0;
            },
            [&] {
              model.empty_fragment_buffers();
              return 0;
            });
      case 21: {
        const uint32_t position = random.below(15);
        return step([&] { return SC_Del_AP_Template_Info_By_Id(templates, position); },
                    [&] { return model.del_template(position); });
      }
      case 22:
      case 23: {
        const uint32_t asked = id(group);
        return step([&] { return SC_Add_Ap_Mac2Template_By_Id(templates, aps, asked, at); },
                    [&] {
                      model.bind(asked, at);
                      return 0;
                    });
      }
      case 24: {
        const uint32_t asked = id(group);
        return step([&] { return SC_Del_Ap_Mac2Template_By_Id(templates, aps, asked, at); },
                    [&] {
                      model.unbind(asked, at);
                      return 0;
                    });
      }
      default:
        meddle(id_table_row(
            std::array{"Ap_Info", "ApUser_Info", "AP_Template_Info"}[random.below(3)]));
    }
  }

  /* What other programs leave behind: ids, MACs, run states; a lock file goes or comes back. */
  void meddle(const IdTableRow& row) {
    if (random.one_in(3)) {
      const std::string& path = lock_file(row.area);
      if (model.without_lock.erase(row.area) != 0) return write_file(path, "\n");
      model.without_lock.insert(row.area);
      ASSERT_EQ(unlink(path.c_str()), 0);
      return;
    }
    const uint32_t position = random.below(row.capacity), slot = id(row);
    const Mac one = mac();
    const uint8_t state = static_cast<uint8_t>(random.below(10) - 6);
    for (std::map<std::string, Bytes>* all : {&model.areas, &blocks}) {
      uint8_t* record = all->at(row.area).data() + row.base + row.stride * position;
      store(record + row.id_at, 4, slot);
      memcpy(record + row.mac_at, one.data(), 6);
      if (row.name == "Ap_Info") record[137] = state;
    }
  }

  Random random;
  ApModel model;
  std::map<std::string, Bytes> blocks; /* the library's */
};

TEST_F(ApModels, RandomOperations_LeaveWhatTheModelSays) {
  for (uint32_t i = steps(); i > 0; --i) {
    SCOPED_TRACE("steps left: " + std::to_string(i));
    ASSERT_NO_FATAL_FAILURE(random_step());
    /* Every tenth time: the blocks are large, and what went wrong stays. */
    if (i % 10 == 1) ASSERT_NO_FATAL_FAILURE(compare_blocks());
  }
}

}  // namespace
