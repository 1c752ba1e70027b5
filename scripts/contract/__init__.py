"""What scripts/check-schemas does with the schemas of the tree."""
