"""Thin networks of well-known families with random weights, and their exports; docs/development/models.md counts them.

Widths and depths are cut down as far as the structure allows; how layers are joined is that of the published networks.
"""
