#include "ttoqr.h"

uint32_t item_count = 0;

unsigned ttoqr(const char*, const char*) { return 1; }
