"""What tests see of a model's inside."""

from taviropy._scalars import data_of
from taviropy.data.view import View


def view_of(model):
    """What an engine would be given."""
    model.update()
    return View(data_of(model))


def engine_of(model):
    """The engine behind a model, None before the first load."""
    return data_of(model).session._engine


def lp_of(model):
    """The model as HiGHS has it."""
    model.load()
    return engine_of(model)._highs.getLp()
