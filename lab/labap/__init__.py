"""The virtual access point: kernel, radios, daemons and files, as a running lumd sees them."""
