"""The terminals on which whole frames are compared: every size in colour, one of them without."""

from kept_frames import SIZES

SHAPES = [*((size, True) for size in SIZES), ((80, 24), False)]
