"""The engine that runs transformations over a model: steps, reports, put-back of what failed.

Command line and API are thin layers over `onnxgraft.engine.rewriting.rewrite`.
"""
