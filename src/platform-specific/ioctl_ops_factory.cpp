#include "ioctl_ops_factory.h"

#include "driver_realtek.h"
#include "nl80211_backend.h"
#include "realtek_ioctl_ops_g6.h"
#include "realtek_ioctl_ops_rtl8192cd.h"

std::unique_ptr<ioctl_ops> ioctl_ops_factory::get(ioctl_ops_type type, const driver_realtek& drv,
                                                  const std::string& ifname) {
    switch (type) {
        case RTL8192CD:
            return std::make_unique<rtl8192cd_ioctl_ops>(drv, ifname);
        case G6:
            return std::make_unique<g6_ioctl_ops>(drv, ifname);
        case NL80211:
            return make_nl80211_ops(ifname, drv.get_nl80211_radios());
    }
    return nullptr;
}
