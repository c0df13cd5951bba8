/* Edits looked at from call to call: what other programs see meanwhile, what a kill leaves, and what
 * becomes of changes that others make at the same moment. */
#include <sysconfig/ap.h>
#include <sysconfig/filter.h>
#include <sysconfig/lan.h>
#include <sysconfig/rules.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>

#include <set>

#include "scctl/edit_trace.h"

namespace sc_test {
namespace {

/* The library packs an image and removes it. */
TEST_F(TraceEditTest, ASaveWhoseImageAnotherSaveRemoves_IsMade) {
  const std::string path = "/var/systemconfig/config_lan.cfg";
  const std::set<long> kLooks = {SYS_access, SYS_stat, SYS_newfstatat, SYS_faccessat,
                                 SYS_faccessat2};
  for (int last = 1; last <= 2; ++last) {
    write_file(path, "x");
    int looks = 0;
    const Outcome outcome = trace(scctl({"save", "Lan"}), [&](const SystemCall& call) {
      if (call.is_done && kLooks.count(call.call) != 0 &&
          (call.text(0) == path || call.text(1) == path) && ++looks == last) {
        EXPECT_EQ(unlink(path.c_str()), 0);
      }
      return Fate{};
    });
    EXPECT_EQ(outcome, (Outcome{0, "", ""})) << last;
    EXPECT_GE(looks, last);
  }
}

TEST_F(TraceEditTest, AddAtAnId_ShowsNothingElseAtAnyMoment) {
  const Image before = image("Lan");
  Image after = before;
  after.put32(1508 + 31 * 748, 32).put(1508 + 31 * 748 + 9, "00:11:22:33:44:55").put32(1504, 1);
  bool is_new = false;
  trace(scctl({"add", "lan_binds/32", "mac=00:11:22:33:44:55"}), [&](const SystemCall& call) {
    if (!is_new && after.matches(block("Lan"))) is_new = true;
    EXPECT_TRUE((is_new ? after : before).matches(block("Lan"))) << call.number;
    return Fate{};
  });
  EXPECT_TRUE(is_new);
}

TEST_F(TraceEditTest, AChange_IsWrittenUnderItsLockAndAnnouncedBehindIt) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  const Image before = image("Lan");
  Listener listener;
  std::vector<std::string> steps;
  trace(scctl({"set", "lan_binds/2", "name=x"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    const std::string state = before.matches(block("Lan")) ? "old" : "new";
    if (call.is_done && lock.is_lock) {
      steps.push_back((lock.type == F_UNLCK ? "unlock "
                       : lock.waits         ? "wait "
                                            : "try ") +
                      std::to_string(lock.first) + "+" + std::to_string(lock.count) + " " + state);
    }
    if (!call.is_done && call.call == SYS_connect) {
      steps.push_back("connect " + state);
      EXPECT_FALSE(is_locked(lock_file("Lan"), 0)); /* others may edit already */
    }
    return Fate{};
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"wait 0+1 old", "wait 3+1 old", "unlock 3+1 new",
                                             "connect new"}));
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
}

TEST_F(TraceEditTest, ASignalThatComesWhileAreasAreAnnounced_LeavesNoneUntold) {
  for (const long at : {SYS_socket, SYS_connect}) {
    done({"add", "ip_groups/2", "leading_text=office"});
    done({"add", "qos/2", "ip_mode=1", "ip_group_id=2"});
    Listener listener;
    bool is_sent = false;
    const Outcome outcome = trace(scctl({"del", "ip_groups/2"}), [&](const SystemCall& call) {
      if (!call.is_done && call.call == at && !is_sent) {
        is_sent = true;
        kill(call.process, SIGTERM);
      }
      return Fate{};
    });
    EXPECT_EQ(outcome, (Outcome{-SIGTERM, "", ""}));
    EXPECT_EQ(listener.codes(), (std::vector<int32_t>{10, 9}));
  }
}

TEST_F(TraceEditTest, ASignalThatComesBehindTheLastWriteOfACommand_EndsItsBatch) {
  int announced = 0;
  const Outcome outcome = trace(
      scctl({"batch"}),
      [&](const SystemCall& call) {
        if (!call.is_done && call.call == SYS_connect && ++announced == 1) {
          kill(call.process, SIGTERM);
        }
        return Fate{};
      },
      "set lan_settings/1 settings=01\nset lan_settings/1 settings=02\n");
  EXPECT_EQ(outcome, (Outcome{-SIGTERM, "commands done: 1\n", ""}));
  EXPECT_EQ(announced, 1);
}

TEST_F(TraceEditTest, Restore_AnnouncesTheAreaOnceItIsLoaded) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  done({"save", "Lan"});
  const Image saved = image("Lan");
  done({"clear", "lan_binds"});
  Listener listener;
  int announced = 0;
  const Outcome outcome = trace(scctl({"restore", "Lan"}), [&](const SystemCall& call) {
    if (call.is_done || call.call != SYS_connect) return Fate{};
    ++announced;
    EXPECT_TRUE(saved.matches(block("Lan")));
    return Fate{};
  });
  EXPECT_EQ(outcome, (Outcome{0, "", ""}));
  EXPECT_EQ(announced, 1);
  EXPECT_EQ(listener.codes(), std::vector<int32_t>{1});
}

TEST_F(TraceEditTest, Set_KeepsWhatAnotherProgramChangesMeanwhile) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55", "name=before"});
  auto& record = block_as<LanBlock>("Lan")->lan_binds[1];
  trace(scctl({"set", "lan_binds/2", "flag=7"}), [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3) {
      strcpy(record.bind_name, "meanwhile");
      strcpy(record.bind_mac, "66:66:66:66:66:66");
    }
    return Fate{};
  });
  EXPECT_EQ(record.bind_flag, 7);
  EXPECT_STREQ(record.bind_name, "meanwhile");
  EXPECT_STREQ(record.bind_mac, "66:66:66:66:66:66");
}

TEST_F(TraceEditTest, Import_KeepsWhatAnotherProgramChangesMeanwhile) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55", "name=before"});
  done({"set", "wan/1", "settings=00000000ff"});
  auto& record = block_as<LanBlock>("Lan")->lan_binds[1];
  trace(
      scctl({"import", "-"}),
      [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3) {
          strcpy(record.bind_name, "meanwhile");
        }
        if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 2) {
          block("Wan")[141] = 0x22; /* a byte that the import has no business with */
        }
        return Fate{};
      },
      "{\"Lan\": {\"lan_binds\": [{\"id\": 2, \"mac\": \"00:11:22:33:44:66\", \"name\": "
      "\"before\"}]}, \"Wan\": {\"wan\": [{\"id\": 1, \"settings\": \"11000000ff\"}]}}");
  EXPECT_STREQ(record.bind_mac, "00:11:22:33:44:66");
  EXPECT_STREQ(record.bind_name, "meanwhile");
  EXPECT_EQ(block("Wan")[140], 0x11);
  EXPECT_EQ(block("Wan")[141], 0x22);
}

/* Another program takes, frees or changes the record between our look and our lock. */
TEST_F(TraceEditTest, ARecordThatAnotherProgramTakesMeanwhile_IsNotWrittenOver) {
  auto& records = block_as<LanBlock>("Lan")->lan_binds;
  const auto take_at_lock = [&](const Words& arguments, off_t byte, int position) {
    return trace(scctl(arguments), [&, position](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == byte) {
        records[position].slot_id = position + 1;
        strcpy(records[position].bind_name, "theirs");
      }
      return Fate{};
    });
  };
  /* Without an id the next free record serves. */
  EXPECT_EQ(take_at_lock({"add", "lan_binds", "mac=00:11:22:33:44:55"}, 2, 0).out,
            "added lan_binds/2\n");
  EXPECT_STREQ(records[0].bind_name, "theirs");
  EXPECT_STREQ(records[0].bind_mac, "");
  const Outcome outcome =
      take_at_lock({"add", "lan_binds/5", "mac=00:11:22:33:44:66", "ip=1.1.1.1"}, 6, 4);
  EXPECT_EQ(outcome,
            (Outcome{1, "", "scctl: lan_binds/5 was used by another program meanwhile\n"}));
  EXPECT_STREQ(records[4].bind_mac, "");
}

TEST_F(TraceEditTest, AnIdOfAnAccessPointThatIsClaimedMeanwhile_IsNotTaken) {
  auto& aps = block_as<ManageApListBlock>("ManageApList")->aps;
  const Outcome outcome =
      trace(scctl({"add", "aps", "ap_mac=02:61:62:63:64:65"}), [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (call.is_done && lock.is_lock && lock.first == 2) {
          aps[0].ap_id = 1; /* the library claims without the lock */
        }
        return Fate{};
      });
  EXPECT_EQ(outcome.out, "added aps/2\n");
  EXPECT_EQ(aps[0].ap_mac[0], 0);
}

TEST_F(TraceEditTest, ARecordThatAnotherProgramFreesMeanwhile_StaysFree) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  auto& record = block_as<LanBlock>("Lan")->lan_binds[1];
  const auto free_at_lock = [&](const SystemCall& call) {
    const LockCall lock = lock_call(call);
    if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3) {
      record.slot_id = -1;
    }
    return Fate{};
  };
  Listener listener;
  EXPECT_EQ(trace(scctl({"set", "lan_binds/2", "name=x"}), free_at_lock),
            (Outcome{1, "", "scctl: lan_binds/2 was deleted by another program meanwhile\n"}));
  EXPECT_STREQ(record.bind_name, "");
  EXPECT_TRUE(listener.codes().empty());
}

TEST_F(TraceEditTest, ARecordThatChangesBeforeAnImportDeletesIt_Stays) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  auto& record = block_as<LanBlock>("Lan")->lan_binds[1];
  const Outcome outcome = trace(
      scctl({"import", "-"}),
      [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3) {
          strcpy(record.bind_name, "theirs");
        }
        return Fate{};
      },
      "{\"Lan\": {\"lan_binds\": []}}");
  EXPECT_EQ(outcome, (Outcome{1, "tables changed: 0, then one failed\n",
                              "scctl: lan_binds/2 was changed by another program meanwhile\n"}));
  EXPECT_EQ(record.slot_id, 2);
}

TEST_F(TraceEditTest, ARecordThatGoesBeforeAnImportDeletesIt_IsGoneAllTheSame) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:56", "ip=10.0.0.3"});
  auto& lan = *block_as<LanBlock>("Lan");
  const Outcome outcome = trace(
      scctl({"import", "-"}),
      [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        const bool first = lock.is_lock && lock.type == F_WRLCK && lock.first == 3;
        if (!call.is_done && first && lan.lan_binds[1].slot_id == 2) {
          lan.lan_binds[1].slot_id = -1;
          --lan.lan_bind_count;
        }
        return Fate{};
      },
      "{\"Lan\": {\"lan_binds\": []}}");
  EXPECT_EQ(outcome, (Outcome{0,
                              "lan_binds: 0 added, 0 changed, 1 deleted\n"
                              "tables changed: 1\n",
                              ""}));
  EXPECT_EQ(lan.lan_binds[2].slot_id, -1);
  EXPECT_EQ(lan.lan_bind_count, 0u);
}

/* No rule refers to a group that is not there, neither while both come nor while both go. */
TEST_F(TraceEditTest, ImportAndDelete_LeaveNoRuleWithoutItsGroup) {
  done({"add", "ip_groups/2", "leading_text=office"});
  done({"add", "ip_filter/2", "ip_mode=1", "ip_group_id=2"});
  done({"add", "qos/2", "ip_mode=1", "ip_group_id=2"});
  const std::string file = done({"export", "IpGroup", "FwIpport", "Qos"});
  const auto& groups = block_as<IpGroupBlock>("IpGroup")->groups;
  const auto& rules = block_as<FwIpportBlock>("FwIpport")->rules;
  const auto& more_rules = block_as<QosBlock>("Qos")->rules;
  std::set<std::string> seen;
  const auto look = [&](const SystemCall&) {
    std::string state;
    for (const bool used :
         {groups[1].slot_id == 2, rules[1].slot_id == 2, more_rules[1].slot_id == 2}) {
      state += used ? '1' : '0';
    }
    seen.insert(state);
    return Fate{};
  };
  const std::set<std::string> valid = {"111", "110", "101", "100", "000"};
  const auto all_valid = [&] {
    return std::includes(valid.begin(), valid.end(), seen.begin(), seen.end());
  };
  const std::string none =
      "{\"FwIpport\": {\"ip_filter\": []}, \"Qos\": {\"qos\": []}, "
      "\"IpGroup\": {\"ip_groups\": []}}";
  EXPECT_EQ(trace(scctl({"import", "-"}), look, none).status, 0);
  EXPECT_TRUE(all_valid());
  EXPECT_EQ(trace(scctl({"import", "-"}), look, file).status, 0);
  EXPECT_TRUE(all_valid());
  EXPECT_EQ(trace(scctl({"del", "ip_groups/2"}), look).status, 0);
  EXPECT_TRUE(all_valid());
  EXPECT_EQ(seen.count("000"), 1u);
}

/* Between our look and our lock. */
TEST_F(TraceEditTest, ARuleThatAnotherProgramChangesBeforeItsGroupGoes_IsLookedAtAgain) {
  auto& rule = block_as<FwIpportBlock>("FwIpport")->rules[1];
  const auto delete_group = [&](auto meanwhile) {
    done({"add", "ip_groups/2", "leading_text=office"});
    done({"add", "ip_filter/2", "ip_mode=1", "ip_group_id=2"});
    int locks = 0;
    const Outcome outcome = trace(scctl({"del", "ip_groups/2"}), [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      if (!call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 3 &&
          ++locks == 1) {
        meanwhile();
      }
      return Fate{};
    });
    EXPECT_EQ(outcome, (Outcome{0, "", ""}));
    EXPECT_EQ(block_as<IpGroupBlock>("IpGroup")->groups[1].slot_id, -1);
    const bool stays = rule.slot_id == 2;
    done({"clear", "ip_filter"});
    return stays;
  };
  EXPECT_FALSE(delete_group([] {}));
  EXPECT_FALSE(delete_group([&] { strcpy(rule.leading_text, "renamed"); }));
  EXPECT_TRUE(delete_group([&] { rule.ip_mode = 0; }));
  EXPECT_TRUE(delete_group([&] { rule.ip_group_id = 3; }));
}

/* One byte at a time besides byte 0, each let go before the next is waited for. */
TEST_F(TraceEditTest, NoRecordIsHeldWhileAnotherByteIsWaitedFor) {
  std::string file =
      "{\"Lan\": {\"lan_settings\": [{\"id\": 1, \"settings\": \"01\"}], "
      "\"lan_binds\": [";
  for (int n = 1; n <= 5; ++n) {
    file += (n > 1 ? ", " : "") + std::string("{\"id\": ") + std::to_string(n) + ", \"mac\": \"" +
            std::to_string(n) + "\", \"ip\": \"1.1.1." + std::to_string(n) + "\"}";
  }
  file += "]}}";
  std::set<int64_t> held;
  size_t waits = 0;
  trace(
      scctl({"import", "-"}),
      [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        if (!lock.is_lock) return Fate{};
        EXPECT_EQ(lock.count, 1);
        if (lock.type == F_UNLCK) {
          held.erase(lock.first);
        } else if (!call.is_done) {
          ++waits;
          EXPECT_TRUE(held.empty() || held == std::set<int64_t>{0});
        } else {
          held.insert(lock.first);
        }
        return Fate{};
      },
      file);
  EXPECT_EQ(waits, 7u); /* byte 0, the settings, five records */
}

TEST_F(TraceEditTest, ALockThatTheKernelRefuses_LeavesAllAsItWas) {
  done({"add", "lan_binds/2", "mac=00:11:22:33:44:55"});
  const Image before = image("Lan");
  for (const int64_t byte : {0, 3}) {
    const auto refuse = [&](const SystemCall& call) {
      const LockCall lock = lock_call(call);
      const bool ours = !call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == byte;
      return ours ? Fate{Fate::kFails, ENOLCK} : Fate{};
    };
    for (const Words& arguments : {Words{"set", "lan_binds/2", "name=x"},
                                   Words{"del", "lan_binds/2"}, Words{"clear", "lan_binds"}}) {
      const Outcome outcome = trace(scctl(arguments), refuse);
      EXPECT_EQ(outcome.status, 1);
      EXPECT_NE(outcome.err.find("cannot be locked: No locks available"), std::string::npos)
          << outcome.err;
      EXPECT_TRUE(before.matches(block("Lan")));
    }
  }
}

TEST_F(TraceEditTest, ADeadlockThatTheKernelSuspects_IsWaitedOut) {
  int answers = 3;
  const Outcome outcome =
      trace(scctl({"add", "lan_binds", "mac=00:11:22:33:44:55"}), [&](const SystemCall& call) {
        const LockCall lock = lock_call(call);
        const bool ours = !call.is_done && lock.is_lock && lock.type == F_WRLCK && lock.first == 2;
        return ours && answers-- > 0 ? Fate{Fate::kFails, EDEADLK} : Fate{};
      });
  EXPECT_EQ(outcome, (Outcome{0, "added lan_binds/1\n", ""}));
  EXPECT_EQ(answers, -1);
}

TEST_F(TraceEditTest, AddKilledAtAnyCall_LeavesTheRecordOldOrNew) {
  expect_old_or_new("Lan", {"add", "lan_binds/32", "mac=00:11:22:33:44:55", "name=x"});
  expect_old_or_new("ManageApList", {"add", "aps/300", "ap_mac=02:61:62:63:64:65"});
}

TEST_F(TraceEditTest, SetAndDelKilledAtAnyCall_LeaveTheRecordOldOrNew) {
  done({"add", "clients/300", "client_mac=02:61:62:63:64:65"});
  expect_old_or_new("Clients", {"set", "clients/300", "text_52=x", "text_182=y"});
  expect_old_or_new("Clients", {"del", "clients/300"});
}

TEST_F(TraceEditTest, ImportKilledAtAnyCall_LeavesEachRecordOldOrNew) {
  const auto file = [](const char* name) {
    std::string text = "{\"Lan\": {\"lan_binds\": [";
    for (const char* id : {"1", "2", "4"}) {
      text += std::string(*id == '1' ? "" : ", ") + "{\"id\": " + id + ", \"mac\": \"" + name + id +
              "\", \"ip\": \"1.1.1." + id + "\", \"name\": \"" + name + "\"}";
    }
    return text + "]}}";
  };
  done({"import", "-"}, file("old"));
  done({"add", "lan_binds/3", "mac=00:11:22:33:44:55"});
  done({"del", "lan_binds/4"});
  const Image before = image("Lan");
  done({"import", "-"}, file("new"));
  const Image after = image("Lan");
  size_t mixed = 0;
  for (size_t number = 1;; ++number) {
    memcpy(block("Lan"), before.data(), before.size());
    bool killed = false;
    trace(
        scctl({"import", "-"}),
        [&](const SystemCall& call) {
          if (call.is_done || call.number != number) return Fate{};
          killed = true;
          return Fate{Fate::kKills};
        },
        file("new"));
    uint32_t used = 0, changed = 0;
    for (size_t n = 0; n < 32; ++n) {
      const size_t at = 1508 + n * 748;
      const bool is_old = memcmp(block("Lan") + at, before.data() + at, 748) == 0;
      const bool is_new = memcmp(block("Lan") + at, after.data() + at, 748) == 0;
      EXPECT_TRUE(is_old || is_new) << "record " << n + 1 << ", killed at call " << number;
      changed += is_new && !is_old;
      used += image("Lan").get32(at) != ~0u;
    }
    EXPECT_EQ(image("Lan").get32(1504), used) << "killed at call " << number;
    mixed += changed > 0 && changed < 4;
    if (!killed) break;
  }
  EXPECT_GT(mixed, 3u);
  EXPECT_TRUE(after.matches(block("Lan")));
}

}  // namespace
}  // namespace sc_test
