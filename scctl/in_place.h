/* Edits of a file. The area of an image or an archive is loaded into a sandbox: a child process with
 * System V memory and a /var of its own. The command works there, by the library's functions and
 * under its locks. The result is written to a temporary file beside the file and renamed over it
 * when all went well; until then the file is as it was.
 *
 * Two edits of one file exclude each other: the second waits, and works on what the first has made.
 */
#ifndef SCCTL_IN_PLACE_H
#define SCCTL_IN_PLACE_H

#include "commands.h"

namespace scctl {

/* Runs the command on the file of --image or --archive. */
int run_in_place(Call& call, int (*run)(Call& call));

}  // namespace scctl

#endif
