"""A model's data: their one owner, the classes that it consists of, and the picture of it that an
engine is given.

`attributes` is the table of attributes, `values` checks what users hand over. `rows`, `elements`,
`quadratic`, `trees` and `general` are arrays of one kind each; `linear` and `objective` read the
user's expressions into such arrays. `model_data` owns them all. `view` shows them to an engine,
`changes` tells it what differs since the last time, and `solution` is what it gives back.
"""
