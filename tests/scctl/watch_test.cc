/* What scctl watch prints of changes, and when. */
#include <algorithm>

#include <sysconfig/ap.h>
#include <sysconfig/clients.h>

#include "scctl/watch_case.h"

namespace sc_test {
namespace {

/* ---- changes by the library ---- */

TEST_F(WatchTest, AddModifyDelete_AreShownByFieldsEachOnce) {
  Watch watch({"Lan"});
  EXPECT_EQ(watch.first(), "watching");
  add(17, "printer");
  EXPECT_EQ(watch.line(), "lan_binds/1: added " + words_of(17, "printer"));
  DhcpStaticItem item = item_of(17, "copier");
  item.id = 1;
  item.flag = 3;
  ASSERT_EQ(ModifyDhcpStaticItem(lan, &item), SC_LIST_OK);
  EXPECT_EQ(watch.lines(2),
            (Lines{"lan_binds/1.flag: 17 -> 3", "lan_binds/1.name: printer -> copier"}));
  del("1");
  EXPECT_EQ(watch.line(),
            "lan_binds/1: deleted mac=00:11:22:33:44:11 ip=192.168.1.17 flag=3 name=copier");
  EXPECT_TRUE(watch.is_silent(100));
}

TEST_F(WatchTest, AnAdd_IsOneLineWithItsFields_AlsoWhereTheSameWas) {
  Watch watch({"Lan"});
  double quickest = kSoonMs;
  for (int n = 0; n < 200; ++n) {
    /* Each fourth comes twice: its place then holds the very same bytes. */
    const int number = n - (n % 4 == 3);
    const std::string name = "n" + std::to_string(number);
    add(number, name);
    const double done = now_ms();
    ASSERT_EQ(watch.line(), "lan_binds/1: added " + words_of(number, name));
    if (n % 4 == 3) quickest = std::min(quickest, now_ms() - done);
    del("1");
    ASSERT_EQ(watch.line(), "lan_binds/1: deleted " + words_of(number, name));
  }
  EXPECT_TRUE(watch.is_silent(50));
  EXPECT_LT(quickest, 100);
}

TEST_F(WatchTest, AFullTableOfAddsAndDeleteAll_AreALineForEachRecord) {
  Watch watch({"Lan"});
  for (int round = 0; round < 3; ++round) {
    Lines added, deleted;
    for (int n = 0; n < 32; ++n) {
      const std::string place = "lan_binds/" + std::to_string(n + 1);
      const std::string words = words_of(n + 1, "r" + std::to_string(round));
      added.push_back(place + ": added " + words);
      deleted.push_back(place + ": deleted " + words);
      add(n + 1, "r" + std::to_string(round));
    }
    Lines said = watch.lines(32);
    std::sort(said.begin(), said.end());
    std::sort(added.begin(), added.end());
    EXPECT_EQ(said, added);
    DelAllDhcpStaticItem(lan);
    said = watch.lines(32);
    std::sort(said.begin(), said.end());
    std::sort(deleted.begin(), deleted.end());
    EXPECT_EQ(said, deleted);
    listener->messages();
  }
  EXPECT_TRUE(watch.is_silent(50));
}

TEST_F(WatchTest, OtherAreas_AreShownWhenNoneIsNamed_AndNotWhenOneIs) {
  auto* groups = started<ClientsGroupsBlock>("Clients_Groups");
  ClientsGroupsItem group = {};
  put_text(group.group_name, "lobby");
  Watch watch({"Lan"});
  ASSERT_EQ(AddClientsGroupsItem(groups, &group), SC_LIST_OK);
  EXPECT_TRUE(watch.is_silent(100));
  Watch all({});
  char id[] = "1";
  DelClientsGroupsItem(groups, id);
  EXPECT_EQ(all.line(), "client_groups/1: deleted group_name=lobby");
}

TEST_F(WatchTest, TheFirstAndTheLastTable_AreLookedAt) {
  auto* clients = started<ClientsBlock>("Clients");
  ClientsItem client = {};
  memcpy(client.client_mac,
         "\x02"
         "abcde",
         6);
  Watch watch({});
  ASSERT_EQ(AddClientsItem(clients, &client), SC_LIST_OK);
  EXPECT_EQ(watch.line(), "clients/1: added client_mac=02:61:62:63:64:65");
  EXPECT_EQ(run(scctl({"set", "lan_settings/1", "settings=01"})).status, 0);
  EXPECT_EQ(watch.line(), "lan_settings/1.settings: 1 byte differs, at 0");
}

TEST_F(WatchTest, AnAccessPoint_IsAddedOnceWhenItIsFilledUnderItsByte) {
  auto* aps = started<ManageApListBlock>("ManageApList");
  ApLimitsRecord limits = {};
  limits.max_ap_count = 300;
  const uint8_t mac[] = {0, 1, 2, 3, 4, 5};
  const char info[sizeof aps->aps[0].group_info] = "lobby"; /* the library copies all of it */
  const std::string lock = lock_file("ManageApList");
  Watch watch({"ManageApList"});
  for (int round = 0; round < 2; ++round) {
    const int32_t position = SC_Get_Ap_Info_Blank(aps, &limits);
    ASSERT_EQ(position, 0);
    const int file = open(lock.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(file, 0);
    ASSERT_EQ(sc_lock_reg(file, F_SETLKW, F_WRLCK, 2, SEEK_SET, 1), 0);
    /* Another program's change makes watch look in the midst of it. */
    Child([&] { close(open(lock.c_str(), O_WRONLY | O_CLOEXEC)); }).wait();
    pause_ms(30);
    memcpy(aps->aps[0].ap_mac, mac, sizeof mac);
    pause_ms(30);
    aps->aps[0].group_id = 7;
    close(file);
    EXPECT_EQ(watch.line(), "aps/1: added ap_mac=00:01:02:03:04:05 group_id=7");
    ASSERT_EQ(SC_Ap_Add_GroupInfo_by_Mac(aps, info, 9, mac), 1);
    EXPECT_EQ(watch.lines(2), (Lines{"aps/1.group_id: 7 -> 9", "aps/1.group_info: '' -> lobby"}));
    aps->aps[0].opaque_4[0] = aps->aps[0].opaque_4[1] = 1;
    aps->aps[0].opaque_11800[0] = 1;
    close(open(lock.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(watch.lines(2), (Lines{"aps/1.opaque_4: 2 bytes differ, the first at 0",
                                     "aps/1.opaque_11800: 1 byte differs, at 0"}));
    ASSERT_EQ(SC_Del_Ap_Info_by_Mac(aps, mac), 1);
    EXPECT_EQ(watch.line(),
              "aps/1: deleted ap_mac=00:01:02:03:04:05 group_id=9 group_info=lobby "
              "opaque_4=(2 bytes) opaque_11800=(1 byte)");
  }
  EXPECT_TRUE(watch.is_silent(50));
}

/* ---- records under way ---- */

TEST_F(WatchTest, AClaimedRecord_IsWaitedForUntilItIsFilled) {
  Watch watch({"Lan"});
  ASSERT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(lan), 0);
  EXPECT_TRUE(watch.is_silent(200));
  rename("filled");
  EXPECT_EQ(watch.line(), "lan_binds/1: added name=filled");

  /* Never filled: shown as it is. */
  ASSERT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(lan), 1);
  EXPECT_EQ(watch.line(), "lan_binds/2: added");
  EXPECT_TRUE(watch.is_silent(50));
}

/* What a deleted record left is not taken for the new one's, if that comes soon. */
TEST_F(WatchTest, ARecordThatIsClaimedWhereAnotherWas_IsWaitedForALittle) {
  add(1, "left");
  Watch watch({"Lan"});
  int once = 0;
  for (int n = 0; n < 20; ++n) {
    del("1");
    EXPECT_NE(watch.line().find("deleted"), std::string::npos);
    if (n % 2 == 1) { /* one that is free may change, too */
      rename("free" + std::to_string(n));
      pause_ms(8);
    }
    const std::string name = "filled" + std::to_string(n);
    ASSERT_EQ(SC_Operate_System_List_GetDhcpdBind_Blank(lan), 0);
    pause_ms(4); /* more in a noisy run */
    rename(name);
    std::string said = watch.line();
    once += said == "lan_binds/1: added ip=192.168.1.1 flag=1 name=" + name ||
            said == "lan_binds/1: added " + words_of(1, name);
    while (said.find(name) == std::string::npos) {
      said = watch.line();
      ASSERT_NE(said, "nothing");
    }
  }
  EXPECT_GE(once, 13);
}

TEST_F(WatchTest, AHeldRecord_IsShownWhenItIsLetGo_OthersAtOnce) {
  add(1, "one");
  add(2, "two");
  Watch watch({"Lan"});
  LockHolder holder(kLanLock, 2);
  lan->lan_binds[0].bind_flag = 9;
  rename("other", 1);
  EXPECT_EQ(watch.line(), "lan_binds/2.name: two -> other");
  EXPECT_TRUE(watch.is_silent(200));
  put_text(lan->lan_binds[0].bind_name, "whole");
  holder.release();
  EXPECT_EQ(watch.lines(2), (Lines{"lan_binds/1.flag: 1 -> 9", "lan_binds/1.name: one -> whole"}));
}

TEST_F(WatchTest, ARecordThatIsHeldForEver_IsShownAsItIs) {
  add(1, "one");
  Watch watch({"Lan"});
  LockHolder holder(kLanLock, 2);
  lan->lan_binds[0].bind_flag = 9;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(100));
  /* Changed back, and changed again after a while: it is waited for anew. */
  lan->lan_binds[0].bind_flag = 1;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(1000));
  lan->lan_binds[0].bind_flag = 8;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(watch.is_silent(300));
  EXPECT_EQ(watch.line(), "lan_binds/1.flag: 1 -> 8");
  EXPECT_TRUE(is_locked(kLanLock, 2));
}

/* Somebody reads a record, or saves the area, for long. */
TEST_F(WatchTest, OtherLocksThanAWritersOfTheRecord_DelayNothing) {
  add(1, "one");
  Watch watch({"Lan"});
  const int file = open(kLanLock, O_RDONLY | O_CLOEXEC);
  Child reader([&] {
    sc_lock_reg(file, F_SETLK, F_RDLCK, 2, SEEK_SET, 1);
    pause();
  });
  close(file);
  LockHolder saver(kLanLock, 1);
  const double begun = now_ms();
  lan->lan_binds[0].bind_flag = 9;
  close(open(kLanLock, O_RDWR | O_CLOEXEC));
  EXPECT_EQ(watch.line(), "lan_binds/1.flag: 1 -> 9");
  EXPECT_LT(now_ms() - begun, 900);
}

/* Init writes the lock file, and the area itself is waited for then. */
TEST_F(WatchTest, WhoMakesAnotherArea_DelaysNothing) {
  add(1, "one");
  started<WanBlock>("Wan");
  Watch watch({});
  write_file(golden_area("Wan").lock_path, "\n");
  pause_ms(20);
  const double begun = now_ms();
  rename("two");
  EXPECT_EQ(watch.line(), "lan_binds/1.name: one -> two");
  EXPECT_LT(now_ms() - begun, 700);
}

/* ---- how soon ---- */

TEST_F(WatchTest, AChange_IsShownAtOnceBesideADaemon) {
  add(1, "n");
  Watch watch({});
  expect_at_once(watch.program().pid(), [&](const std::string& name) {
    return watch.line().find("-> " + name) != std::string::npos;
  });
}

}  // namespace
}  // namespace sc_test
