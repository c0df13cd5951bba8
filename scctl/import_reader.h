/* Reads the JSON of an export. */
#ifndef SCCTL_IMPORT_READER_H
#define SCCTL_IMPORT_READER_H

#include "members.h"

namespace scctl {

using namespace store;

/* The wanted contents of the tables in a file. A table that is not in the file has none. */
struct Import {
  Snapshot wanted[kTableCount];
  KeptSecrets kept;

  /* Reads and checks the whole input of the command. On an error it prints a message and returns a
   * status. */
  int read(const Call& call);
};

}  // namespace scctl

#endif
