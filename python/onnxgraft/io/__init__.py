"""Models and their data files: reading, staging, publishing whole or not at all."""
