"""Small faults put into src/ one at a time, to see whether a test notices each (docs/mutants.md)."""
