/* The floor of each operation: only the steps that no implementation can leave out, so many
 * times. */
#ifndef BENCH_FLOORS_H
#define BENCH_FLOORS_H

#include <stddef.h>
#include <stdint.h>

namespace bench {

/* The system calls of a change under a record's lock. */
void floor_modify(int64_t times);
/* The system calls of an add and of a delete, each with its notification. */
void floor_add_and_delete(int64_t times);

/* One memset of the caller's output and one copy of as many bytes, as the compiler translates them
 * from two lines of C. */
void floor_read(int64_t times);
void floor_list_bindings(int64_t times);
void floor_list_ip_filters(int64_t times);
void floor_list_qos(int64_t times);
/* The same as the first one, with the C library's memset and memcpy, which are made for the CPU. */
void tight_floor_read(int64_t times);
/* One memset of the list, and one copy of each field's bytes from the record to its place in the
 * item. */
void fields_floor_list_bindings(int64_t times);

/* One load from each of 300 records. */
void floor_search_aps(int64_t times);
void floor_search_clients(int64_t times);
/* Four loads in each turn of the loop. */
void tight_floor_search_aps(int64_t times);
void tight_floor_search_clients(int64_t times);

/* The shell commands of a flash save of the Lan area. The image exists already. */
void floor_save(int64_t times);

}  // namespace bench

#endif
