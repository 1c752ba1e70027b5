// The configuration file.
#include "file.h"
#include "input.h"
#include "lum_trace.h"
#include "websock_cfg.h"

namespace {

const char* arguments[] = {"lumd", nullptr};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::File file;
    static const std::string path = file.path();
    static websock_cfg_t cfg(1, arguments);
    file.set(fuzz::as_text(data, size));
    cfg.instance = {};
    cfg.wids_mac_list_id.clear();
    cfg.parse_file(path.c_str());
    fuzz::require(cfg.wids_mac_list_id.find_first_of("\r\n") == std::string::npos);
    fuzz::require(global_log_file.find_first_of("\r\n") == std::string::npos);
    return 0;
}
