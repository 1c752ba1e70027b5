// ipc_module_t: module ids on the platform's message bus.
#ifndef LUMD_IPC_MODULE_H
#define LUMD_IPC_MODULE_H

#include <array>
#include <cstdint>

// Numbered 0 to 38; those without a name here belong to platform daemons this agent never meets.
enum ipc_module_t : std::int32_t {
    VAULTDMOD = 1,          // configuration store
    LUMDMOD = 2,            // this agent in portal mode
    PORTALMOD = 3,          // peer of everything ipc_worker sends
    HUBDMOD = 6,            // network manager
    ORVANTAMOD = 28,        // the request side, ipc_helper
    GUARDDMOD = 29,         // intrusion detection
    ORVANTAEVENTSMOD = 31,  // this agent in RRM mode
    SCANDMOD = 34,          // scan daemon
    SIZEMOD = 39            // count
};

// What each context of this agent joins the bus with; opaque to this side.
inline constexpr std::array<std::uint8_t, 2> bus_options = {0xFE, 0x00};

#endif
