// driver_realtek: client control that these drivers do not have.
#include "driver_realtek.h"
#include "lum_trace.h"

int driver_realtek::block_sta(const char*, const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::block_sta_data(const char*, const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::unblock_sta(const char*, const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::unblock_all_sta(const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::set_vexor_sta_rssi_thr_high(const char*, int) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::set_vexor_sta_rssi_thr_low(const char*, int) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::probsup_find(const char*, const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::probsup_rrm_max_age(const char*, int) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::probsup_rrm_client_try_no_balance(const char*, int) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::rssi_renew_interval(const char*, int) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}

int driver_realtek::disassoc_sta(const char*, const char*) const {
    trace.debug("%s: not supported\n", __func__);
    return 0;
}
