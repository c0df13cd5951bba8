/* A process in its own namespaces, with System V memory and a /var that no other program sees. */
#ifndef STORE_SANDBOX_H
#define STORE_SANDBOX_H

namespace store {

/* Enters namespaces with an empty /var: the daemon hears of no edit, and the machine's lock files
 * and archives are not changed. The commands that a save runs, except tar, are replaced by empty
 * scripts, because it does not save the machine's areas. Needs root or user namespaces. Returns
 * null, or the step that failed, with errno. */
const char* enter_sandbox();

}  // namespace store

#endif
