/* Part two of the demo: groups and the rules that refer to them, port forwarding, access points,
 * clients. */
#ifndef DEMO_TOUR_H
#define DEMO_TOUR_H

#include <sysconfig/core.h>

void tour(const struct SystemConfigDirectory* directory);

#endif
