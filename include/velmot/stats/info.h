#ifndef VELMOT_STATS_INFO_H
#define VELMOT_STATS_INFO_H

// Label statistics and the split criteria built on them.

#include "velmot/stats/criteria.h"
#include "velmot/stats/label_accumulator.h"

#endif
