/* Standard input, output and error of a program that edits files.
 *
 * If a program is started with one of them closed, the next file that it opens gets this
 * descriptor, and messages would be written to that file. So main() calls this before it opens
 * anything.
 */
#ifndef STORE_STREAMS_H
#define STORE_STREAMS_H

namespace store {

/* Opens each closed one, in a way that every read and write of it fails as if it was closed. If
 * that cannot be done, the program ends with status 1. */
void open_standard_streams();

}  // namespace store

#endif
