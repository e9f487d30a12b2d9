"""Drawings of small graphs: a layered layout, and SVG drawings that use it.

`pair_picture` shows a (pattern, replacement) pair for the documentation, `node_cards` the nodes of real models.
"""
