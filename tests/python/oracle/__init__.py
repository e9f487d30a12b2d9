"""A slow and obvious model of finding and replacing subgraphs, the yardstick for the compiled one.

Nothing here is shared with the package under test, and nothing is fast: assignments are enumerated node by
node, every round rebuilds the whole node list.  Fit for graphs of some tens of nodes.
"""
