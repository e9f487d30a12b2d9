"""Drawings of small graphs: a layered layout, and what is drawn with it as SVG.

`pair_picture` shows a (pattern, replacement) pair for the documentation, `node_cards` the nodes of real models.
"""
