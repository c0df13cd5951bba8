/* A program of the vendor, as far as an overlay needs it: debug information has the structs of the
 * variables that are there. */
#include "vendor.h"

struct wan_section wan_section;
struct ap_vendor ap_vendor;
struct product_info product_info;
