"""A slow and obvious model of finding and replacing subgraphs, the yardstick for the compiled one.

It shares nothing with the package under test, and nothing is fast: assignments are enumerated node by node, every round
rebuilds the whole node list. Suitable for graphs with tens of nodes.
"""
