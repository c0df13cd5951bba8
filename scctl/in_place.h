/* Edits of a file. The area of an image or an archive is loaded into a sandbox: a child process
 * with System V memory and a /var of its own. The command works there
 * as on live areas. The result is written to a temporary file beside the file. When all went well, the
 * temporary file is renamed over the file; until then the file does not change.
 *
 * Two edits of one file exclude each other: the second waits, and then edits the result of the
 * first.
 */
#ifndef SCCTL_IN_PLACE_H
#define SCCTL_IN_PLACE_H

#include "commands.h"

namespace scctl {

/* Runs the command on the file of --image or --archive. */
int run_in_place(Call& call, int (*run)(Call& call));

}  // namespace scctl

#endif
