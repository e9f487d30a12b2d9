"""Values for the inputs of a model: a user's data in any supported form, or random numbers."""

from onnxgraft.errors import DataError
from onnxgraft.samples.data import Data, Sample, Samples, open_data
from onnxgraft.samples.images import Images

__all__ = ["Data", "DataError", "Images", "Sample", "Samples", "open_data"]
