"""Speed as ratios within one run, so that the numbers mean the same on every machine."""
