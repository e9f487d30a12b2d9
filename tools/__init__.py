"""Commands for working on the project; none of them is installed."""
