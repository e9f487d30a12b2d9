"""What is asked of a graph as it stands: names, nested bodies, values of tensors; nothing of transformations."""
