"""A virtual machine with a real kernel, simulated 802.11 radios, real hostapd and real clients."""
