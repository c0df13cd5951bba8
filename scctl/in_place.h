/* Changes of a file. An image or an archive is edited as if it were live: a child process loads its
 * area into a private world, with System V memory and a /var of its own, and the command works
 * there, by the library's functions and under its locks. What comes out is written beside the file
 * and takes its place when all went well; until then the file is as it was.
 */
#ifndef SCCTL_IN_PLACE_H
#define SCCTL_IN_PLACE_H

#include "commands.h"

namespace scctl {

/* Runs the command on the file of --image or --archive. */
int run_in_place(Call& call, int (*run)(Call& call));

}  // namespace scctl

#endif
