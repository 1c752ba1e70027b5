"""A whole lab around one lumd, for tests and for a person at a terminal."""
