"""Pictures of (pattern, replacement) pairs: from the lists to a layered drawing."""
