"""The works in each library: a module a library, with a function for each work that it can do.

A function takes the data of its work and returns what it built, from the arrays to a loaded
solver, or to solver-ready arrays where the library has no in-memory hand-over.
"""
