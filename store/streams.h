/* Standard input, output and error of a program that edits files.
 *
 * A program that is started with one of them closed would get its number for the next file that it
 * opens, and its messages would land in that file. So main() makes sure of all three before it opens
 * anything.
 */
#ifndef STORE_STREAMS_H
#define STORE_STREAMS_H

namespace store {

/* A closed one is open from now on, but each read and write of it fails as if it was not. Ends the
 * program with status 1 where that cannot be done. */
void open_standard_streams();

}  // namespace store

#endif
