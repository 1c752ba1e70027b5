// libhubd::MacAddr: what it reads it writes in both forms, and reads again as the same.
#include "MacAddr.h"
#include "input.h"

using libhubd::MacAddr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text{fuzz::as_text(data, size)};
    const MacAddr mac = MacAddr::from_str(text.c_str());
    for (const std::string& written : {mac.str(), mac.str_solid()}) {
        const MacAddr again = MacAddr::from_str(written.c_str());
        fuzz::require(again.is_valid() && again == mac);
    }
    fuzz::require(mac.is_valid() || mac == MacAddr{});
    return 0;
}
