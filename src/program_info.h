// What a person asks of the program itself rather than of the agent.
#ifndef LUMD_PROGRAM_INFO_H
#define LUMD_PROGRAM_INFO_H

// Prints the usage or the version on standard output when "--help" or "--version" is the only
// argument; then true, and there is nothing else to do. All other arguments are websock_cfg_t's.
[[nodiscard]] bool print_program_info(int argc, const char* const* argv);

#endif
