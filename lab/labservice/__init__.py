"""The radio-management service as access points see it: three websocket subprotocols."""
