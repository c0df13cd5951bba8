/* Extended attributes and access lists of a file that is edited in place. */
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>

#include "scctl/in_place_case.h"
#include "support/trace.h"

namespace sc_test {
namespace {

class TraceAttributesTest : public InPlaceCase {};

std::string attribute(const std::string& file, const char* name) {
  char value[256];
  const ssize_t size = getxattr(file.c_str(), name, value, sizeof value);
  return size < 0 ? strerror(errno) : std::string(value, static_cast<size_t>(size));
}

/* An access list with an entry of a named user, as the kernel takes it. */
std::string access_list(uint16_t rights_of_user) {
  struct Entry {
    uint16_t tag, rights;
    uint32_t id;
  };
  const uint32_t version = 2, nobody = UINT32_MAX;
  const std::array<Entry, 5> entries = {{{1, 6, nobody},
                                         {2, rights_of_user, geteuid()},
                                         {4, 0, nobody},
                                         {0x10, 6, nobody},
                                         {0x20, 0, nobody}}};
  std::string bytes(reinterpret_cast<const char*>(&version), sizeof version);
  return bytes.append(reinterpret_cast<const char*>(&entries), sizeof entries);
}

TEST_F(TraceAttributesTest, ExtendedAttributesAndTheAccessListAreKept) {
  constexpr char kName[] = "security.scctl_test", kList[] = "system.posix_acl_access";
  const std::string list = access_list(6);
  ASSERT_EQ(setxattr(kImage, kName, "value", 5, 0), 0) << strerror(errno);
  ASSERT_EQ(setxattr(kImage, "security.scctl_test2", "", 0, 0), 0) << strerror(errno);
  ASSERT_EQ(setxattr(kImage, kList, list.data(), list.size(), 0), 0) << strerror(errno);
  EXPECT_EQ(run(edit()), (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  EXPECT_EQ(attribute(kImage, kName), "value");
  EXPECT_EQ(attribute(kImage, "security.scctl_test2"), "");
  EXPECT_EQ(attribute(kImage, kList), list);
  EXPECT_EQ(status_of(kImage).st_mode & 07777, 0660u);
}

TEST_F(TraceAttributesTest, TheFoldersListForNewFiles_GivesNobodyAccess) {
  const std::string list = access_list(6);
  ASSERT_EQ(setxattr(kFolder, "system.posix_acl_default", list.data(), list.size(), 0), 0);
  EXPECT_EQ(run(edit()), (Outcome{0, "", ""}));
  EXPECT_EQ(kind_of(read_file(kImage)), "new");
  EXPECT_EQ(attribute(kImage, "system.posix_acl_access"), strerror(ENODATA));
}

TEST_F(TraceAttributesTest, AnAttributeThatCannotBeKept_IsARefusal) {
  ASSERT_EQ(setxattr(kImage, "security.scctl_test", "value", 5, 0), 0) << strerror(errno);
  for (const long number : {SYS_fgetxattr, SYS_fsetxattr, SYS_fremovexattr}) {
    const Outcome outcome = trace(edit(), [=](const SystemCall& call) {
      return call.call == number ? Fate{Fate::kFails, EPERM} : Fate{};
    });
    EXPECT_EQ(outcome, (Outcome{3, "",
                                std::string("scctl: ") + kImage +
                                    " is not changed: cannot keep its extended attributes: "
                                    "Operation not permitted\n"}));
    EXPECT_EQ(kind_of(read_file(kImage)), "old");
    EXPECT_EQ(names_in(kFolder), std::set<std::string>{"lan.cfg"});
  }
}

TEST_F(TraceAttributesTest, WhereTheFileSystemKnowsNoAttributes_TheEditIsDone) {
  for (const int error : {ENOTSUP, ENOSYS}) {
    write_file(kImage, was_);
    const Outcome outcome = trace(edit(), [=](const SystemCall& call) {
      const bool asks = call.call == SYS_flistxattr || call.call == SYS_fremovexattr;
      return asks ? Fate{Fate::kFails, error} : Fate{};
    });
    EXPECT_EQ(outcome, (Outcome{0, "", ""}));
    EXPECT_EQ(kind_of(read_file(kImage)), "new");
  }
}

}  // namespace
}  // namespace sc_test
