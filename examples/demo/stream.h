/* What scctl watch --json says of an area, beside the daemon that hears its code alone. */
#ifndef DEMO_STREAM_H
#define DEMO_STREAM_H

/* Starts a watch of the area and waits until it watches; ends the program when it does not. */
void start_stream(const char* area);

/* Waits for the line of the next change and prints it, folded between its members. */
void streamed(void);

/* Ends the watch: nobody reads it any more. */
void stop_stream(void);

#endif
