"""Thin networks of well-known families with random weights, and their exports; docs/development/models.md counts them.

Widths and depths are reduced as far as the structure allows. The connections of the layers are those of the published
networks.
"""
