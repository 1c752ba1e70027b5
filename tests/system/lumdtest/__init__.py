"""Tools of the system tests: the programs under test and the peers they talk to."""
