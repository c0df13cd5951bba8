/* Shell commands, and copying the DHCP lease files by one of them. */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <sysconfig/core.h>

int sc_do_system(const char* format, ...) {
  char command[4096];
  va_list values;
  va_start(values, format);
  vsnprintf(command, sizeof command, format, values);
  va_end(values);
  return system(command);
}

namespace {

/* Leases of the LAN's clients and of the access points: the volatile file and its saved copy. */
constexpr char kClientLeases[] = "/var/udhcpd.leases";
constexpr char kSavedClientLeases[] = "/var/dataconfig/udhcpd.leases";
constexpr char kApLeases[] = "/var/addrserver.leases";
constexpr char kSavedApLeases[] = "/var/dataconfig/addrserver.leases";

int copy(const char* from, const char* to) { return sc_do_system("cp -rf %s %s", from, to); }

}  // namespace

int SC_Save_Dhcp_Clients(void) { return copy(kClientLeases, kSavedClientLeases); }

int SC_Save_Dhcp_Ap(void) { return copy(kApLeases, kSavedApLeases); }

int SC_Restore_Dhcp_Clients(void) { return copy(kSavedClientLeases, kClientLeases); }

int SC_Restore_Dhcp_Ap(void) { return copy(kSavedApLeases, kApLeases); }
