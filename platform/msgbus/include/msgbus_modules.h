/*
 * msgbus_modules: names of the modules that have one, for tools and for people.
 *
 * The bus itself knows numbers alone. MSGBUS_MODULES(X) stands for X(number, name, what it is) once
 * for each name, by number.
 */
#ifndef PLATFORM_MSGBUS_MODULES_H
#define PLATFORM_MSGBUS_MODULES_H

#define MSGBUS_MODULES(X)                                         \
    X(1, "vaultd", "configuration store")                         \
    X(2, "lumd", "radio-management agent in portal mode")         \
    X(3, "portal", "its peer")                                    \
    X(6, "hubd", "network manager")                               \
    X(28, "orvanta", "radio-management agent, its own requests")  \
    X(29, "guardd", "intrusion detection")                        \
    X(31, "orvanta-events", "radio-management agent in RRM mode") \
    X(34, "scand", "scan daemon")

#endif
