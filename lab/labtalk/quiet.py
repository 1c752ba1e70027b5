"""Kinds of events that come by the dozen and say little: hidden unless somebody asks."""
NOISE = frozenset({"get", "get-response", "mib-get", "station-list", "channel-list"})
