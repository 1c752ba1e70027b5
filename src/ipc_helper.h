// ipc_helper: synchronous requests over the message bus, to the configuration store vaultd, the
// network manager hubd and the scan daemon.
#ifndef LUMD_IPC_HELPER_H
#define LUMD_IPC_HELPER_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ipc_module.h"
#include "owned.h"

// Ordered name/value pairs pushed to hubd.
using orvanta_params_t = std::vector<std::pair<std::string, std::string>>;

// Owns a bus context of its own. Holds no lock: used by one thread at a time. A request waits for
// its answer on the caller's thread, at most `timeout` seconds; an absent daemon is known at once.
// Failures are logged and answered by -1, false, an empty text or the stated default; none is
// retried.
class ipc_helper {
  public:
    // Joins the bus as `module`; a failure ends the process with status 255. `process_run_flag`,
    // when given, is borrowed: once it is false no request is sent that would wait for an answer,
    // it fails at once instead. A process told to stop thus waits for the answer under way at most,
    // however many requests were to follow.
    ipc_helper(ipc_module_t module, int timeout_seconds,
               const volatile bool* process_run_flag = nullptr);
    ipc_helper(const ipc_helper&) = delete;
    ipc_helper& operator=(const ipc_helper&) = delete;

    // Configuration readers. `ifname` is a radio's interface name ("wlan0") or a VAP's
    // ("wlan0-va2").
    virtual std::string get_country(const char* ifname) const;  // "RU" when not known
    virtual bool get_wds_enabled(const char* ifname) const;     // any of eight WDS links is on
    virtual bool get_auto_channel(const char* ifname) const;
    virtual bool is_wpa23_vap(int radio, int vap) const;
    virtual bool is_fbt_enabled(int radio, int vap) const;
    virtual bool get_enterprise_vap(const std::string& ifname) const;
    virtual bool get_802dot11k_vap(const std::string& ifname) const;
    virtual std::string get_ssid(const std::string& ifname) const;
    virtual bool get_vap_enabled_state(const std::string& ifname) const;
    virtual bool get_captive_portal_state(const std::string& ifname) const;

    bool get_use_limit_channels(const char* ifname) const;
    // Throws std::invalid_argument or std::out_of_range for a piece that is no number.
    void fill_limit_channels(const char* ifname, std::set<int>& channels) const;
    bool get_config_wids() const;
    bool get_tpc() const;
    bool get_dca() const;
    bool get_load_balance_80211v() const;

    // Reads the configuration value at `path` into `value`: 0, or -1 when there is none. A value
    // that is neither scalar, object nor null counts as read and leaves `value` as it was.
    int getconf(const std::string& path, std::string& value) const;

    // Pushes parameters to hubd and waits for its consent: 0, or -1 when it is silent, refuses, or
    // there is nothing to push.
    int update_orvanta(const std::string& ifname, const orvanta_params_t& params) const;

    // Asks hubd to take back what the service had set on an interface: 0, or -1.
    int send_reset_orvanta(const std::string& ifname) const;

    // Pushes the MAC lists in the JSON object `json` to hubd: 0 when any answer came, -1 otherwise.
    int set_wisd_bw_list(const std::string& json) const;

    // Tell the scan daemon to keep off an interface, and that it may return. Always 0.
    int lock_scan_scand(const char* ifname) const;
    int unlock_scan_scand(const char* ifname) const;

  protected:
    // How hubd took a request.
    struct hubd_reply_t {
        cfgtree_ptr answer;            // null: hubd was silent
        const char* reason = nullptr;  // of a refusal; borrowed from `answer`

        [[nodiscard]] bool is_silent() const { return !answer; }
        [[nodiscard]] bool is_refusal() const { return reason != nullptr; }
        [[nodiscard]] bool is_consent() const { return answer && reason == nullptr; }
    };

    // Not virtual: nothing is deleted through this class.
    ~ipc_helper() = default;

    // Sends `request` (borrowed) to `module` and waits for the answer whose "command" is
    // `response_command`. Null when none came, and `error_text` is logged.
    cfgtree_ptr send_ipc_message_wait_answer(const cfgtree_node* request,
                                             const char* response_command, std::uint8_t module,
                                             const char* error_text) const;

    // The same to hubd, and judges the answer by its "status".
    hubd_reply_t ask_hubd(const cfgtree_node* request, const char* response_command,
                          const char* error_text) const;

    // A configuration path of at most 63 characters; a longer one is cut.
    [[gnu::format(printf, 1, 2)]] static std::string format_path(const char* format, ...);

    // The value at `path`, logging the path first.
    std::optional<std::string> read(const std::string& path) const;

  private:
    [[nodiscard]] bool is_stopping() const { return running != nullptr && !*running; }

    // The value below a VAP's configuration, logged in the name of the operation `func`.
    std::optional<std::string> read_vap(const std::string& ifname, const char* suffix,
                                        const char* func, int line) const;

    int send_scan_notice(const char* command, const char* ifname) const;

    const msgbus_ptr ctx;
    const std::int32_t timeout;  // seconds
    const volatile bool* const running;
};

#endif
