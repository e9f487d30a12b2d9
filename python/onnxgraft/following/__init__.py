"""What the host does after a step: the seam between the engine and those who finish, fill or describe its result.

A transformation leaves the graph as its class defines it. A `Follower` then sees where it replaced something and may
go on from there: bring a bias to its length, put calibrated numbers in place of random ones, note types. It works
inside of the step, so that whatever it raises undoes the step as a whole.
"""

from onnxgraft.following.done_step import DoneStep, Follower, Host, Splice, UndoStepError

__all__ = ["DoneStep", "Follower", "Host", "Splice", "UndoStepError"]
