/* A stand-in for the configuration daemon: a child process that listens on /var/config_socket and
 * prints each code that it hears with the name of its area. */
#ifndef DEMO_LISTENER_H
#define DEMO_LISTENER_H

/* Starts the child; ends the program when that cannot be done. It dies with its parent. */
void start_listener(void);

/* Ends a row: the child prints the codes that were sent since the last one. */
void heard(void);

void stop_listener(void);

#endif
