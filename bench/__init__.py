"""Speed as ratios of one run, so that the numbers mean the same on every machine."""
