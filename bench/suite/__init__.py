"""The benchmark suite behind tools/bench: each case beside its floor, in one private machine."""
