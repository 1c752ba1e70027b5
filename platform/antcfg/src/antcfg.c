#include "antcfg.h"

#include <stdio.h>
#include <string.h>

#include "datafile.h"
#include "logsink.h"

static const char custom[] = "custom";

static int read_figures(const cfgtree_node* antenna, struct antcfg_record* record) {
    if (datafile_get_int(antenna, "antenna-gain", &record->antenna_gain) == 0 &&
        datafile_get_int(antenna, "cable-loss", &record->cable_loss) == 0)
        return 0;
    record->antenna_gain = 0;
    record->cable_loss = 0;
    return -1;
}

static const cfgtree_node* find_antenna(const cfgtree_node* file, const char* name) {
    const cfgtree_node* antennas = cfgtree_get_child(file, "antennas");
    for (size_t i = 0; i < cfgtree_array_length(antennas); i++) {
        const cfgtree_node* antenna = cfgtree_array_at(antennas, i);
        const char* found = cfgtree_get_param(antenna, "name");
        if (found && strcmp(found, name) == 0)
            return antenna;
    }
    return NULL;
}

static int look_up(const char* ifname, const char* name, struct antcfg_record* record) {
    cfgtree_node* file = datafile_load("antennas.json");
    if (!file)
        return -1;
    const cfgtree_node* antenna = find_antenna(file, name);
    const int result = antenna ? read_figures(antenna, record) : -1;
    if (result != 0)
        logsink_message(SINK_ERROR, "%s: antenna '%s' is %s in antennas.json", ifname, name,
                        antenna ? "malformed" : "not known");
    cfgtree_release(file);
    return result;
}

static int take_custom(const char* ifname, const cfgtree_node* tree, struct antcfg_record* record) {
    const int result = read_figures(tree, record);
    if (result != 0)
        logsink_message(SINK_ERROR, "%s: custom antenna figures are malformed", ifname);
    return result;
}

int antcfg_get(const char* ifname, const cfgtree_node* tree, struct antcfg_record* record) {
    char asked[ANTCFG_NAME_BYTES];
    snprintf(asked, sizeof asked, "%.*s", ANTCFG_NAME_BYTES - 1, record->name);
    const char* name = cfgtree_get_param(tree, "name");
    if (!name)
        name = asked;
    snprintf(record->name, sizeof record->name, "%s", name);
    record->antenna_gain = 0;
    record->cable_loss = 0;
    return strcmp(name, custom) == 0 ? take_custom(ifname, tree, record)
                                     : look_up(ifname, name, record);
}
