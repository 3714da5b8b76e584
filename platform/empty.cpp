// Placeholder unit while the module has no units yet.
