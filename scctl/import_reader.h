/* Reads the JSON of an export. */
#ifndef SCCTL_IMPORT_READER_H
#define SCCTL_IMPORT_READER_H

#include "commands.h"

namespace scctl {

using namespace store;

/* What the tables of a file are to be; those that it has not are none. */
struct Import {
  Snapshot wanted[kTableCount];

  /* The command's input, all of it checked. Says what is wrong with it, and returns a status. */
  int read(const Call& call);
};

}  // namespace scctl

#endif
