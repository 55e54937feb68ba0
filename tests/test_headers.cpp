// The object that carries the precompiled GoogleTest headers of the tests.
