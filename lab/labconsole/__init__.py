"""The lab in a browser: a local page that shows one access point or a fleet, and commands it."""
