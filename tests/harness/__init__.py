"""Scratch machines on which the built binary runs, and what it leaves there."""
