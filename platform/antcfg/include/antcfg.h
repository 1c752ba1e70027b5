/*
 * antcfg: antenna gain and cable loss of an interface.
 *
 * The tree names the antenna: {"name": "...", "antenna-gain": 25, "cable-loss": -15}, figures in
 * tenths of a dB. The name "custom" stands for the tree's own figures; any other name is looked up
 * in antennas.json of $LUMD_PLATFORM_DIR (default /etc/lumd):
 *     {"antennas": [{"name": "...", "antenna-gain": 25, "cable-loss": -15}]}
 */
#ifndef PLATFORM_ANTCFG_H
#define PLATFORM_ANTCFG_H

#include "cfgtree.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { ANTCFG_NAME_BYTES = 64 };

struct antcfg_record {
    char name[ANTCFG_NAME_BYTES]; /* in: the name to take when the tree has none; out: taken */
    int antenna_gain;             /* tenths of a dB */
    int cable_loss;               /* tenths of a dB */
};

/* Fills `record` for the interface from `tree` (borrowed, may be null) and returns 0; a figure that
 * is not given is 0. A name that is not known, a figure that is no integer, or a missing or
 * malformed antennas.json where it is needed logs one error line, leaves zeroed figures and returns
 * -1. Any thread. */
int antcfg_get(const char* ifname, const cfgtree_node* tree, struct antcfg_record* record);

#ifdef __cplusplus
}
#endif

#endif
