/* The configuration daemon's end of the notification socket. */
#ifndef BENCH_LISTENER_H
#define BENCH_LISTENER_H

namespace bench {

/* Starts another process, which reads each notification and closes the connection. It ends when
 * this process ends. */
void start_listener();

}  // namespace bench

#endif
