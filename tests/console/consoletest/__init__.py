"""What the console's tests have in common."""
