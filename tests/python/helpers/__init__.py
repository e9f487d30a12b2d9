"""Generators of test data."""
