"""Makers of test data."""
