/* The configuration daemon's end of the notification socket. */
#ifndef BENCH_LISTENER_H
#define BENCH_LISTENER_H

namespace bench {

/* Another process, which takes each notification and closes; it ends with this one. */
void start_listener();

}  // namespace bench

#endif
