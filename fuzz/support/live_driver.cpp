#include "live_driver.h"

#include "access_point.h"
#include "stub_bus.h"

driver_realtek& fuzz::live_driver() {
    static volatile bool run = true;
    AccessPoint::instance().reset();
    stub_bus::serve(stub_bus::agreeable);
    // The platform's maker of drivers gives this class and no other.
    static auto& driver = static_cast<driver_realtek&>(make_driver(run));
    driver.close_vapcontext();
    driver.set_hostapd_initialized(true);
    driver.set_vapcontext();
    return driver;
}
