# Nothing of it is used.
