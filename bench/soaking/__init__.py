"""The parts of bench/soak."""
