// Replaced by the harness.
