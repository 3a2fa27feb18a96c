// Placeholder translation unit for an area that has no source file yet.
