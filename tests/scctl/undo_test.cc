#include "scctl/tries.h"
