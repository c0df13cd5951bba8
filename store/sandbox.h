/* A process in namespaces of its own, with System V memory and a /var that no other program sees. */
#ifndef STORE_SANDBOX_H
#define STORE_SANDBOX_H

namespace store {

/* An empty /var: no daemon hears of an edit, no lock file and no archive of the machine's is touched.
 * What a save runs besides tar is silenced, for it is no save of the machine's areas. Takes root, or
 * user namespaces. Null when it is done, else the step that failed, with errno. */
const char* enter_sandbox();

}  // namespace store

#endif
