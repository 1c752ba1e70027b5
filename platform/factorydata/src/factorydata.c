#include "factorydata.h"

#include <stdio.h>
#include <string.h>

#include "datafile.h"

static void copy_text(char* text, const cfgtree_node* factory, const char* name) {
    const char* value = cfgtree_get_param(factory, name);
    snprintf(text, FACTORYDATA_TEXT_BYTES, "%s", value ? value : "");
}

int factorydata_load(struct factorydata_record* record) {
    memset(record, 0, sizeof *record);
    cfgtree_node* factory = datafile_load("factory.json");
    if (!factory)
        return -1;
    copy_text(record->board, factory, "board");
    copy_text(record->hw, factory, "hw");
    copy_text(record->serial, factory, "serial");
    copy_text(record->mac, factory, "mac");
    cfgtree_release(factory);
    return 0;
}
