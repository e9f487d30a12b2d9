"""Reading exported models and counting what the transformations do to them."""
