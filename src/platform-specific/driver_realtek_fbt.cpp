// driver_realtek: fast-transition parameters and resets pushed to hubd.
#include "driver_realtek.h"
#include "krds.h"
#include "lum_trace.h"

int driver_realtek::start_orvanta_fbt_params() {
    realtek_fbt_msg.reset(cfgtree_new());
    if (!realtek_fbt_msg) {
        trace.error("%s:%d> can't create json object\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    cfgtree_set_param(realtek_fbt_msg.get(), "command", "update-orvanta-fbt");
    return 0;
}

void driver_realtek::set_orvanta_fbt_params(const std::string& name, const std::string& json) {
    if (!realtek_fbt_msg)
        return;
    const cfgtree_ptr params{cfgtree_parse(json.c_str())};
    if (!params) {
        trace.error("<%s:%d> can't parse json string '%s'\n", __func__, __LINE__, json.c_str());
        return;
    }
    cfgtree_insert(realtek_fbt_msg.get(), name.c_str(), params.get());
}

int driver_realtek::finish_orvanta_fbt_params() {
    if (!realtek_fbt_msg) {
        trace.error("%s:%d> fbt params is NULL!\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    const cfgtree_ptr message = std::move(realtek_fbt_msg);
    trace.debug("Try to send update-orvanta-fbt to hubd\n");
    const hubd_reply_t reply = ask_hubd(message.get(), "update-orvanta-fbt-response",
                                        "Error: can't update Orvanta fbt params\n");
    if (trace.is_debug_enabled())
        trace.debug("set_orvanta_fbt_params: %s\n", cfgtree_serialize(message.get()));
    if (reply.is_silent()) {
        trace.error("Error: no response (%s)\n", __func__);
        return -1;
    }
    if (trace.is_debug_enabled())
        trace.debug("set_orvanta_fbt_params resp: %s\n", cfgtree_serialize(reply.answer.get()));
    if (reply.is_consent())
        trace.debug("Successfully received update-orvanta-fbt-response from hubd\n");
    else
        trace.error("Error: can't apply update-orvanta-fbt-response reason (%s)\n", reply.reason);
    return 0;
}

int driver_realtek::reset_orvanta_fbt(ResetOrvantaCause cause) const {
    // A daemon that merely stops leaves the fast-transition parameters in place.
    return cause == UNKNOWN || cause == ORVANTA_DISCONNECTED ? __reset_orvanta_fbt(cause) : 0;
}

int driver_realtek::__reset_orvanta_fbt(ResetOrvantaCause) const {
    trace.debug("%s\n", __func__);
    const cfgtree_ptr message{cfgtree_new()};
    if (!message) {
        trace.error("%s:%d> can't create json object\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    cfgtree_set_param(message.get(), "command", "reset-orvanta-fbt");
    for (int radio = 0; radio < get_max_radios(); ++radio) {
        for (int vap = 0; vap < get_max_vap(); ++vap)
            cfgtree_add_subtree(message.get(), vap_name(radio, vap).c_str());
    }
    trace.debug("Try to send reset-orvanta-fbt to hubd\n");
    if (trace.is_debug_enabled())
        trace.debug("reset_orvanta_fbt_params: %s\n", cfgtree_serialize(message.get()));
    const hubd_reply_t reply = ask_hubd(message.get(), "reset-orvanta-fbt-response",
                                        "Error: can't reset Orvanta params\n");
    if (reply.is_silent()) {
        trace.error("Error: no response (%s)\n", __func__);
        return -1;
    }
    if (trace.is_debug_enabled())
        trace.debug("reset_orvanta_fbt_params resp: %s\n", cfgtree_serialize(reply.answer.get()));
    if (reply.is_consent())
        trace.debug("Successfully received reset-orvanta-fbt-response from hubd\n");
    else
        trace.error("Error: fail reset-orvanta-fbt: reason (%s)\n", reply.reason);
    return 0;
}

void driver_realtek::reset_orvanta(ResetOrvantaCause cause) {
    if (cause != UNKNOWN)
        return;
    KRDS::for_each_radio([this](const std::string& ifname, const KRDS::RadioDescription&) {
        send_reset_orvanta(ifname);
        return false;
    });
}
