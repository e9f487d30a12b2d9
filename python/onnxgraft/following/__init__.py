"""Work after each step of a run: the seam between the engine and the packages that finish, fill or describe its result.

A transformation leaves the graph as its class defines it. A `Follower` then sees where it replaced something and can
complete the result: extend a bias, put calibrated numbers in place of random ones, record types. It runs inside the
step, so that an error in it undoes the step as a whole.
"""

from onnxgraft.following.done_step import DoneStep, Follower, Host, Splice, UndoStepError

__all__ = ["DoneStep", "Follower", "Host", "Splice", "UndoStepError"]
