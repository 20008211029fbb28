// filled in by its owner
