// Filled in by the work on the support library and the provider object.
