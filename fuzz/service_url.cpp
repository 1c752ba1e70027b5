// The URL of a service, behind a prefix of up to 15 characters: the input's first byte.
#include <cstring>
#include <vector>

#include "input.h"
#include "websock_cfg.h"

namespace {

constexpr int longest_prefix = 15;
const char* arguments[] = {"lumd", nullptr};

void check(const char (&text)[256], bool path) {
    fuzz::require(std::memchr(text, '\0', sizeof text) != nullptr);
    fuzz::require(std::strpbrk(text, "\r\n") == nullptr);
    fuzz::require(!path || text[0] == '/');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static websock_cfg_t cfg(1, arguments);
    fuzz::Reader input{fuzz::as_text(data, size)};
    const int prefix = input.byte() & longest_prefix;
    // Of its own size, so that the sanitizer sees the first byte beyond.
    std::vector<char> line(static_cast<std::size_t>(prefix) + input.rest().size() + 1);
    input.rest().copy(line.data() + prefix, input.rest().size());

    cfg.instance = {};
    const bool good = cfg.setup_service_config(WS_INSTANCE_RRM, line.data(), prefix);
    const config_instance_t& service = cfg.instance[WS_INSTANCE_RRM];
    fuzz::require(good || !service.run);
    check(service.domain, false);
    check(service.path, service.run);
    return 0;
}
