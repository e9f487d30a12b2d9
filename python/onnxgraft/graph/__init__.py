"""Facts about a graph as it is: names, nested bodies, values of tensors. Nothing here knows transformations."""
