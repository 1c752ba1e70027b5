#include "ipc_helper.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "lum_trace.h"
#include "text.h"

namespace {

constexpr std::size_t path_bytes = 64;  // of a formatted path, its NUL included
constexpr int wds_links = 8;            // per radio

bool is_true(const std::optional<std::string>& value) {
    return value == "true";
}

cfgtree_ptr make_request(const char* command) {
    cfgtree_ptr request{cfgtree_new()};
    if (request)
        cfgtree_set_param(request.get(), "command", command);
    return request;
}

// What a "get-response" holds: 0 when it counts as a value, which `value` then has unless the
// value is of a type that has no text.
int take_value(const cfgtree_node* answer, std::string& value) {
    if (!cfgtree_has_param(answer, "value")) {
        if (trace.is_error_enabled())
            trace.error("Child 'value' not found in vaultd response: %s\n",
                        cfgtree_serialize_compact(answer));
        return -1;
    }
    const cfgtree_node* child = cfgtree_get_child(answer, "value");
    switch (cfgtree_get_type(child)) {
        case CFGTREE_STRING:
        case CFGTREE_VALUE:
            value = text_of(cfgtree_serialize(child));
            return 0;
        case CFGTREE_OBJECT:
            value = text_of(cfgtree_object_to_string(child));
            return 0;
        case CFGTREE_NONE:
            if (trace.is_error_enabled())
                trace.error("Child 'value' has type 'none' in vaultd response: %s\n",
                            cfgtree_serialize_compact(answer));
            return -1;
        default:
            return 0;
    }
}

}  // namespace

ipc_helper::ipc_helper(ipc_module_t module, int timeout_seconds,
                       const volatile bool* process_run_flag)
    : ctx(msgbus_init(module, bus_options.data(), bus_options.size())),
      timeout(timeout_seconds),
      running(process_run_flag) {
    if (ctx != nullptr)
        return;
    trace.error("Error: couldn't ctx initialization\n");
    std::exit(-1);
}

cfgtree_ptr ipc_helper::send_ipc_message_wait_answer(const cfgtree_node* request,
                                                     const char* response_command,
                                                     std::uint8_t module,
                                                     const char* error_text) const {
    if (is_stopping())
        return nullptr;
    msgbus_peer_start(ctx.get());
    const char* text = text_of(cfgtree_serialize_compact(request));
    msgbus_send(ctx.get(), text, module, std::strlen(text));
    cfgtree_ptr answer{msgbus_wait_answer(ctx.get(), response_command, error_text, timeout)};
    msgbus_peer_stop(ctx.get());
    return answer;
}

ipc_helper::hubd_reply_t ipc_helper::ask_hubd(const cfgtree_node* request,
                                              const char* response_command,
                                              const char* error_text) const {
    hubd_reply_t reply;
    reply.answer = send_ipc_message_wait_answer(request, response_command, HUBDMOD, error_text);
    const cfgtree_node* answer = reply.answer.get();
    if (answer == nullptr || std::strcmp(text_of(cfgtree_get_param(answer, "status")), "ok") == 0)
        return reply;
    const char* reason = cfgtree_get_param(answer, "reason");
    reply.reason = reason != nullptr ? reason : "invalid response";
    return reply;
}

std::string ipc_helper::format_path(const char* format, ...) {
    char path[path_bytes];
    va_list args;
    va_start(args, format);
    std::vsnprintf(path, sizeof path, format, args);
    va_end(args);
    return path;
}

int ipc_helper::getconf(const std::string& path, std::string& value) const {
    if (path.empty())
        return -1;
    const cfgtree_ptr request = make_request("get");
    if (!request) {
        trace.error("%s:%d> can't create json object\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    cfgtree_set_param(request.get(), "path", path.c_str());
    const cfgtree_ptr answer = send_ipc_message_wait_answer(request.get(), "get-response",
                                                            VAULTDMOD, "Error: can't get config\n");
    if (!answer) {
        trace.error("Error: path (%s) reason (not found)\n", path.c_str());
        return -1;
    }
    return take_value(answer.get(), value);
}

std::optional<std::string> ipc_helper::read(const std::string& path) const {
    trace.debug("getconf '%s'\n", path.c_str());
    std::string value;
    if (getconf(path, value) != 0)
        return std::nullopt;
    return value;
}

std::optional<std::string> ipc_helper::read_vap(const std::string& ifname, const char* suffix,
                                                const char* func, int line) const {
    const std::string path = "/interface/" + ifname + suffix;
    std::string value;
    if (getconf(path, value) != 0) {
        trace.error("<%s:%d> can't get value from '%s'\n", func, line, path.c_str());
        return std::nullopt;
    }
    trace.debug("<%s:%d> %s = %s\n", func, line, path.c_str(), value.c_str());
    return value;
}

std::string ipc_helper::get_country(const char* ifname) const {
    return read(format_path("/interface/%s/wlan/radio/country", text_of(ifname))).value_or("RU");
}

bool ipc_helper::get_wds_enabled(const char* ifname) const {
    for (int link = 0; link < wds_links; ++link) {
        if (is_true(read(format_path("/interface/%s-wds%d/common/enabled", text_of(ifname), link))))
            return true;
    }
    return false;
}

bool ipc_helper::get_auto_channel(const char* ifname) const {
    return is_true(read(format_path("/interface/%s/wlan/radio/auto-channel", text_of(ifname))));
}

bool ipc_helper::get_use_limit_channels(const char* ifname) const {
    return is_true(
        read(format_path("/interface/%s/wlan/radio/use-limit-channels", text_of(ifname))));
}

void ipc_helper::fill_limit_channels(const char* ifname, std::set<int>& channels) const {
    channels.clear();
    const std::optional<std::string> value =
        read(format_path("/interface/%s/wlan/radio/limit-channels", text_of(ifname)));
    if (!value)
        return;
    std::istringstream pieces{*value};
    for (std::string piece; std::getline(pieces, piece, ' ');) {
        const int channel = std::stoi(piece);
        if (channel >= 1)
            channels.insert(channel);
    }
}

bool ipc_helper::is_wpa23_vap(int radio, int vap) const {
    const std::optional<std::string> mode =
        read(format_path("/interface/wlan%d-vap%d/vap/ap-security/mode", radio, vap));
    // "WPA_" stands for a mixed mode, which lets first-generation WPA clients in.
    if (!mode || contains(*mode, "WPA_"))
        return false;
    return contains(*mode, "WPA2") || contains(*mode, "WPA3");
}

bool ipc_helper::is_fbt_enabled(int radio, int vap) const {
    const std::optional<std::string> enabled =
        read(format_path("/interface/wlan%d-vap%d/vap/ft-config/enabled", radio, vap));
    if (!enabled)
        return false;
    const bool wpa23 = is_wpa23_vap(radio, vap);
    return wpa23 && is_true(enabled);
}

bool ipc_helper::get_enterprise_vap(const std::string& ifname) const {
    return contains(read_vap(ifname, "/vap/ap-security/mode", __func__, __LINE__).value_or(""),
                    "1X");
}

bool ipc_helper::get_802dot11k_vap(const std::string& ifname) const {
    return is_true(read_vap(ifname, "/vap/w80211kv-config/enabled", __func__, __LINE__));
}

std::string ipc_helper::get_ssid(const std::string& ifname) const {
    return read_vap(ifname, "/vap/ssid", __func__, __LINE__).value_or("");
}

bool ipc_helper::get_vap_enabled_state(const std::string& ifname) const {
    return is_true(read_vap(ifname, "/common/enabled", __func__, __LINE__));
}

bool ipc_helper::get_captive_portal_state(const std::string& ifname) const {
    return is_true(read_vap(ifname, "/vap/captive-portal/enabled", __func__, __LINE__));
}

bool ipc_helper::get_config_wids() const {
    return is_true(read("/wids/enabled")) && read("/wids/scan-mode") == "sentry";
}

bool ipc_helper::get_tpc() const {
    return is_true(read("/orvanta/tpc"));
}

bool ipc_helper::get_dca() const {
    return is_true(read("/orvanta/dca"));
}

bool ipc_helper::get_load_balance_80211v() const {
    return is_true(read("/orvanta/load-balance-80211v"));
}

int ipc_helper::update_orvanta(const std::string& ifname, const orvanta_params_t& params) const {
    if (ifname.empty() || params.empty())
        return -1;
    const cfgtree_ptr request = make_request("update-orvanta");
    if (!request) {
        trace.error("%s:%d> can't create json object\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    cfgtree_set_param(request.get(), "ifname", ifname.c_str());
    cfgtree_node* subtree = cfgtree_add_subtree(request.get(), "params");
    if (subtree == nullptr) {
        trace.error("%s:%d> not enough memory\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    for (const auto& [name, value] : params)
        cfgtree_add_string(subtree, name.c_str(), value.c_str());
    const hubd_reply_t reply =
        ask_hubd(request.get(), "update-orvanta-response", "Error: can't update Orvanta params\n");
    if (reply.is_silent())
        trace.error("Error: no response (%s)\n", __func__);
    else if (reply.is_refusal())
        trace.error("Error: ifname (%s) reason (%s)\n", ifname.c_str(), reply.reason);
    return reply.is_consent() ? 0 : -1;
}

int ipc_helper::send_reset_orvanta(const std::string& ifname) const {
    if (ifname.empty())
        return -1;
    const cfgtree_ptr request = make_request("reset-orvanta");
    if (!request) {
        trace.error("%s:%d> can't create json object\n", __PRETTY_FUNCTION__, __LINE__);
        return -1;
    }
    cfgtree_set_param(request.get(), "ifname", ifname.c_str());
    const hubd_reply_t reply =
        ask_hubd(request.get(), "reset-orvanta-response", "Error: can't reset Orvanta params\n");
    if (reply.is_silent())
        trace.error("Error: no response\n");
    else if (reply.is_refusal())
        trace.error("Error: ifname (%s) reason (%s)\n", ifname.c_str(), reply.reason);
    return reply.is_consent() ? 0 : -1;
}

int ipc_helper::set_wisd_bw_list(const std::string& json) const {
    const cfgtree_ptr request{cfgtree_parse(json.c_str())};
    // JSON that is no object cannot carry the command.
    if (!request || cfgtree_set_param(request.get(), "command", "update-wids-mac-lists") != 0) {
        trace.error("%s:%d> can't parse json string '%s'\n", __PRETTY_FUNCTION__, __LINE__,
                    json.c_str());
        return -1;
    }
    if (trace.is_debug_enabled())
        trace.debug("Try to send update-wids-mac-lists to hubd:\n%s\n",
                    cfgtree_serialize_compact(request.get()));
    const hubd_reply_t reply = ask_hubd(request.get(), "update-wids-mac-lists-response",
                                        "Error: can't update wids b/w params\n");
    if (reply.is_silent())
        trace.error("Error: no response\n");
    else if (reply.is_refusal())
        trace.error("Error: reason (%s)\n", reply.reason);
    return reply.is_silent() ? -1 : 0;
}

int ipc_helper::send_scan_notice(const char* command, const char* ifname) const {
    const cfgtree_ptr notice = make_request(command);
    if (!notice)
        return 0;
    cfgtree_set_param(notice.get(), "interface", text_of(ifname));
    const char* text = text_of(cfgtree_serialize_compact(notice.get()));
    msgbus_send(ctx.get(), text, SCANDMOD, std::strlen(text));
    return 0;
}

int ipc_helper::lock_scan_scand(const char* ifname) const {
    return send_scan_notice("lock-scan", ifname);
}

int ipc_helper::unlock_scan_scand(const char* ifname) const {
    return send_scan_notice("unlock-scan", ifname);
}
