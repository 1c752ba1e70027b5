// The connected flag file: it exists while the service has accepted this access point.
#ifndef LUMD_CONNECTED_FLAG_H
#define LUMD_CONNECTED_FLAG_H

inline constexpr const char* orvanta_connected_file = "/tmp/.orvanta-connected";

// Creates the flag file, empty.
void set_orvanta_connected_mode();

// Removes it; an absent file is no error.
void unset_orvanta_connected_mode();

#endif
